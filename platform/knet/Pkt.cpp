#include "knet/Pkt.h"

#include <algorithm>
#include <cassert>

#include "loom/Assert.h"

namespace Knet {

Pkt::Pkt(U32 size, U32 headRoom) : buf_(new PktBuffer(size + headRoom)), head_(headRoom), size_(size) {}

void Pkt::reallocate(U32 headRoom, U32 tailRoom) {
  Loom::Ptr<PktBuffer> fresh = new PktBuffer(headRoom + size_ + tailRoom);
  std::memcpy(fresh->bytes() + headRoom, data(), size_);
  buf_ = fresh;
  head_ = headRoom;
}

void Pkt::headAdd(U32 n) {
  if (n > head_ || dataShared()) reallocate(std::max(n, defaultHeadRoom), tailRoom());
  head_ -= n;
  size_ += n;
  std::memset(data(), 0, n);
}

void Pkt::headDel(U32 n) {
  assert(n <= size_ && "Pkt::headDel past the end");
  n = std::min(n, size_);
  head_ += n;
  size_ -= n;
}

void Pkt::delSharedHeadData(U32 n) {
  LOOM_ASSERT(n <= size_, "Pkt::delSharedHeadData past the end");
  head_ += n;
  size_ -= n;
}

void Pkt::sizeIs(U32 n) {
  if (n <= size_) {
    size_ = n;
    return;
  }
  U32 grow = n - size_;
  if (grow > tailRoom() || dataShared()) reallocate(head_, grow);
  std::memset(data() + size_, 0, grow);
  size_ = n;
}

void Pkt::dataUniqueIs() {
  if (dataShared()) reallocate(head_, tailRoom());
}

Loom::Ptr<Pkt> pktFactory(U32 size, U32 headRoom) { return new Pkt(size, headRoom); }

Loom::Ptr<Pkt> pktFactory(std::span<const U8> bytes, U32 headRoom) {
  Loom::Ptr<Pkt> p = new Pkt(static_cast<U32>(bytes.size()), headRoom);
  if (!bytes.empty()) std::memcpy(p->data(), bytes.data(), bytes.size());
  return p;
}

PktManager& PktManager::instance() {
  static PktManager manager;
  return manager;
}

Loom::Ptr<Pkt> PktManager::pktNew(U32 size, U32 headRoom) {
  if (size > maxPktSize_) return nullptr;
  ++pktsMade_;
  return new Pkt(size, headRoom);
}

}  // namespace Knet
