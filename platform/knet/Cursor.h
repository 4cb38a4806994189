#pragma once
// Bounds-checked cursors over packet bytes. Integers are read and written in network order
// (the "Be" in the names) through memcpy, never through a struct laid over the bytes.
//
// A read or write that does not fit leaves the bytes and the position alone, returns zero for a
// read, and sets overrun(); callers check the room first so that they can say what was missing.
// skip() may move the position past the end (the remaining count then goes negative).
#include <cstring>

#include "knet/Address.h"
#include "knet/Pkt.h"

namespace Knet {

class PktReader {
 public:
  PktReader(const U8* data, U32 size, U32 offset) : data_(data), size_(size), pos_(offset) {}
  PktReader(const Loom::Ptr<Pkt>& pkt, U32 offset) : PktReader(pkt->data(), pkt->size(), offset) {}

  U64 offset() const { return pos_; }
  S64 remaining() const { return S64(size_) - S64(pos_); }
  bool fits(U64 n) const { return pos_ <= size_ && n <= size_ - pos_; }
  bool overrun() const { return overrun_; }

  U8 readU8() {
    if (!fits(1)) return fail();
    return data_[pos_++];
  }
  U16 readU16Be() {
    if (!fits(2)) return fail();
    U16 v = static_cast<U16>(data_[pos_] << 8 | data_[pos_ + 1]);
    pos_ += 2;
    return v;
  }
  U32 readU32Be() {
    if (!fits(4)) return fail();
    U32 v;
    std::memcpy(&v, data_ + pos_, 4);
    pos_ += 4;
    return __builtin_bswap32(v);
  }
  // An address of the family from its network-order bytes; unset if it does not fit.
  IpGenAddr readAddress(AddressFamily af) {
    U32 n = af == AddressFamily::ipv4 ? 4 : af == AddressFamily::ipv6 ? 16 : 0;
    if (n == 0 || !fits(n)) {
      fail();
      return IpGenAddr();
    }
    IpGenAddr a = IpGenAddr::fromBytes(af, data_ + pos_);
    pos_ += n;
    return a;
  }
  void skip(U64 n) { pos_ += n; }
  const U8* here() const { return data_ + pos_; }

 private:
  U8 fail() {
    overrun_ = true;
    return 0;
  }
  const U8* data_;
  U32 size_;
  U64 pos_;
  bool overrun_ = false;
};

class PktWriter {
 public:
  PktWriter(U8* data, U32 size, U32 offset) : data_(data), size_(size), pos_(offset) {}
  PktWriter(const Loom::Ptr<Pkt>& pkt, U32 offset) : PktWriter(pkt->data(), pkt->size(), offset) {}

  U32 offset() const { return pos_; }
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
    U32 n = a.byteLength();
    if (n == 0 || !fits(n)) return fail();
    std::memcpy(data_ + pos_, a.bytes(), n);
    pos_ += n;
    return true;
  }
  // Moves past n bytes that someone else wrote (at most to the end).
  bool skip(U32 n) {
    if (!fits(n)) return fail();
    pos_ += n;
    return true;
  }
  // Rewrites a 16-bit field written earlier (such as an option length known only at the end).
  bool patchU16Be(U32 at, U16 v) {
    if (at > size_ || size_ - at < 2) return fail();
    data_[at] = static_cast<U8>(v >> 8);
    data_[at + 1] = static_cast<U8>(v);
    return true;
  }

 private:
  bool fail() {
    overrun_ = true;
    return false;
  }
  U8* data_;
  U32 size_;
  U32 pos_;
  bool overrun_ = false;
};

}  // namespace Knet
