#pragma once
// Packet buffers. A Pkt is a window (head offset, size) on a reference-counted byte buffer with
// room in front for headers added later. Several Pkts may share one buffer (sharedPkt()); the
// first write through a shared Pkt should call dataUniqueIs() to get bytes of its own.
#include <algorithm>
#include <cstring>
#include <memory>
#include <span>

#include "loom/Ptr.h"

namespace Knet {

class PktBuffer : public Loom::PtrInterface {
 public:
  explicit PktBuffer(U32 capacity) : bytes_(new U8[capacity]()), capacity_(capacity) {}
  // Bytes left as they come, for a buffer that is written whole before it is read (a receive
  // buffer).
  struct Unzeroed {};
  PktBuffer(U32 capacity, Unzeroed) : bytes_(new U8[capacity]), capacity_(capacity) {}
  U8* bytes() { return bytes_.get(); }
  const U8* bytes() const { return bytes_.get(); }
  U32 capacity() const { return capacity_; }

 private:
  std::unique_ptr<U8[]> bytes_;
  U32 capacity_;
};

class Pkt : public Loom::PtrInterface {
 public:
  static constexpr U32 defaultHeadRoom = 64;

  Pkt(U32 size, U32 headRoom);
  Pkt(const Loom::Ptr<PktBuffer>& buffer, U32 head, U32 size) : buf_(buffer), head_(head), size_(size) {}

  U32 size() const { return size_; }
  U8* data() { return buf_->bytes() + head_; }
  const U8* data() const { return buf_->bytes() + head_; }
  std::span<const U8> bytes() const { return {data(), size_}; }
  U32 headRoom() const { return head_; }
  U32 tailRoom() const { return buf_->capacity() - head_ - size_; }

  // Puts n zero bytes in front of the data (a header to be filled in). Moves the data into a
  // larger buffer if the head room is short or the buffer is shared.
  void headAdd(U32 n);
  // Removes n bytes from the front (n at most size()).
  void headDel(U32 n);
  // Drops n bytes (at most size()) from the front of this packet's window without touching or
  // copying the bytes, also when the buffer is shared: the other packets over it keep their own
  // windows. A received data Register is handed on this way, from its inner IP header on.
  void delSharedHeadData(U32 n);
  // Cuts the packet to n bytes, or extends it with zero bytes.
  void sizeIs(U32 n);

  // The buffer's whole size, head room and tail room included.
  U32 capacity() const { return buf_->capacity(); }
  // Makes the window `size` bytes from the start of the buffer, without touching the bytes: a
  // receive slot hands the same packet out again once no one holds it.
  void windowIs(U32 size) {
    head_ = 0;
    size_ = std::min(size, buf_->capacity());
  }

  bool dataShared() const { return buf_->references() > 1; }
  // A new Pkt over the same bytes: no copy.
  Loom::Ptr<Pkt> sharedPkt() const { return new Pkt(buf_, head_, size_); }
  // Gives this Pkt bytes of its own if they are shared.
  void dataUniqueIs();

 private:
  void reallocate(U32 headRoom, U32 tailRoom);
  Loom::Ptr<PktBuffer> buf_;
  U32 head_;
  U32 size_;
};

Loom::Ptr<Pkt> pktFactory(U32 size, U32 headRoom = Pkt::defaultHeadRoom);
Loom::Ptr<Pkt> pktFactory(std::span<const U8> bytes, U32 headRoom = Pkt::defaultHeadRoom);

// The packet manager of the process: where received packets get their buffers.
class PktManager {
 public:
  static PktManager& instance();
  U32 maxPktSize() const { return maxPktSize_; }
  void maxPktSizeIs(U32 v) { maxPktSize_ = v; }
  // A packet of `size` bytes with `headRoom` bytes in front; null when size exceeds maxPktSize().
  Loom::Ptr<Pkt> pktNew(U32 size, U32 headRoom = Pkt::defaultHeadRoom);
  U64 pktsMade() const { return pktsMade_; }

 private:
  PktManager() = default;
  U32 maxPktSize_ = 65535;
  U64 pktsMade_ = 0;
};

}  // namespace Knet
