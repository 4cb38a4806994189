#pragma once
// Bounds-checked cursors over packet bytes, one for reading and one for writing, sharing one
// offset type. Integers are read and written in network order (the "Be" in the names) through
// memcpy, never through a struct laid over the bytes.
//
// The contract, the same for both cursors:
//   - every read, write and skip that does not fit leaves the bytes and the position alone,
//     sets overrun() and reports it (a read returns zero, the others false); callers test the
//     room first (fits(), remaining()) when they must say what was missing;
//   - a reader's results are [[nodiscard]]: a caller that ignores one has a bug; a writer's
//     bool says whether the bytes went in (callers that checked the room first may rely on
//     overrun() instead);
//   - a part whose length the packet gives (an option, a list) is read through a sub-reader
//     bounded to that length (take()), so that it can never read past its own end.
// Sub-codecs (encoded addresses, options) read from and write to the caller's cursor; nobody
// keeps a second count of the position beside it.
#include <cstring>
#include <optional>

#include "knet/Address.h"
#include "knet/Pkt.h"

namespace Knet {

// A position in a packet's data, or a count of its bytes.
using PktOffset = U32;

class PktReader {
 public:
  PktReader(const U8* data, PktOffset size, PktOffset offset) : data_(data), size_(size), pos_(offset) {}
  PktReader(const Loom::Ptr<Pkt>& pkt, PktOffset offset) : PktReader(pkt->data(), pkt->size(), offset) {}

  PktOffset offset() const { return pos_; }
  // Bytes left to read; negative when the reader was made at an offset beyond the end.
  S64 remaining() const { return S64(size_) - S64(pos_); }
  bool fits(U64 n) const { return pos_ <= size_ && n <= size_ - pos_; }
  bool atEnd() const { return pos_ >= size_; }
  bool overrun() const { return overrun_; }

  [[nodiscard]] U8 readU8() {
    if (!fits(1)) return fail();
    return data_[pos_++];
  }
  [[nodiscard]] U16 readU16Be() {
    if (!fits(2)) return fail();
    const U16 v = static_cast<U16>(data_[pos_] << 8 | data_[pos_ + 1]);
    pos_ += 2;
    return v;
  }
  [[nodiscard]] U32 readU32Be() {
    if (!fits(4)) return fail();
    U32 v;
    std::memcpy(&v, data_ + pos_, 4);
    pos_ += 4;
    return __builtin_bswap32(v);
  }
  // An address of the family from its network-order bytes; unset if it does not fit or the
  // family has no address length.
  [[nodiscard]] IpGenAddr readAddress(AddressFamily af) {
    const PktOffset n = addressLength(af);
    if (n == 0 || !fits(n)) {
      fail();
      return IpGenAddr();
    }
    IpGenAddr a = IpGenAddr::fromBytes(af, data_ + pos_);
    pos_ += n;
    return a;
  }
  // Moves past n bytes: false, not moving, when fewer remain.
  [[nodiscard]] bool skip(U64 n) {
    if (!fits(n)) return fail();
    pos_ += static_cast<PktOffset>(n);
    return true;
  }
  // A reader over the next n bytes, this one moved past them; nullopt (not moving) when fewer
  // remain. The sub-reader's offsets are those of the packet.
  [[nodiscard]] std::optional<PktReader> take(U64 n) {
    if (!fits(n)) {
      fail();
      return std::nullopt;
    }
    PktReader sub(data_, pos_ + static_cast<PktOffset>(n), pos_);
    pos_ += static_cast<PktOffset>(n);
    return sub;
  }

  // For fast paths that look at the bytes ahead themselves (then skip what they took).
  const U8* data() const { return data_; }
  PktOffset size() const { return size_; }

 private:
  static constexpr PktOffset addressLength(AddressFamily af) {
    return af == AddressFamily::ipv4 ? 4 : af == AddressFamily::ipv6 ? 16 : 0;
  }
  U8 fail() {
    overrun_ = true;
    return 0;
  }
  const U8* data_;
  PktOffset size_;
  PktOffset pos_;
  bool overrun_ = false;
};

class PktWriter {
 public:
  PktWriter(U8* data, PktOffset size, PktOffset offset) : data_(data), size_(size), pos_(offset) {}
  PktWriter(const Loom::Ptr<Pkt>& pkt, PktOffset offset) : PktWriter(pkt->data(), pkt->size(), offset) {}

  PktOffset offset() const { return pos_; }
  // Room left; negative when the writer was made at an offset beyond the end.
  S64 remaining() const { return S64(size_) - S64(pos_); }
  bool fits(U64 n) const { return pos_ <= size_ && n <= size_ - pos_; }
  bool overrun() const { return overrun_; }

  bool writeU8(U8 v) {
    if (!fits(1)) return fail();
    data_[pos_++] = v;
    return true;
  }
  bool writeU16Be(U16 v) {
    if (!fits(2)) return fail();
    data_[pos_] = static_cast<U8>(v >> 8);
    data_[pos_ + 1] = static_cast<U8>(v);
    pos_ += 2;
    return true;
  }
  bool writeU32Be(U32 v) {
    if (!fits(4)) return fail();
    v = __builtin_bswap32(v);
    std::memcpy(data_ + pos_, &v, 4);
    pos_ += 4;
    return true;
  }
  bool writeAddress(const IpGenAddr& a) {
    const PktOffset n = a.byteLength();
    if (n == 0 || !fits(n)) return fail();
    std::memcpy(data_ + pos_, a.bytes(), n);
    pos_ += n;
    return true;
  }
  // Moves past n bytes that are written later or by someone else: false, not moving, when
  // fewer remain.
  bool skip(U64 n) {
    if (!fits(n)) return fail();
    pos_ += static_cast<PktOffset>(n);
    return true;
  }
  // Goes back to an earlier position (a part written and then taken out again).
  void rewind(PktOffset to) {
    if (to < pos_) pos_ = to;
  }
  // Rewrites fields written earlier (a length or count known only at the end).
  bool patchU8(PktOffset at, U8 v) {
    if (at >= size_) return fail();
    data_[at] = v;
    return true;
  }
  bool patchU16Be(PktOffset at, U16 v) {
    if (at > size_ || size_ - at < 2) return fail();
    data_[at] = static_cast<U8>(v >> 8);
    data_[at + 1] = static_cast<U8>(v);
    return true;
  }

  // For fast paths that write the bytes ahead themselves (then skip what they wrote).
  U8* data() const { return data_; }
  PktOffset size() const { return size_; }

 private:
  bool fail() {
    overrun_ = true;
    return false;
  }
  U8* data_;
  PktOffset size_;
  PktOffset pos_;
  bool overrun_ = false;
};

}  // namespace Knet
