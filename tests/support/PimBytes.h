#pragma once
// PIM messages as a peer puts them on the wire, in either family (the family of the addresses
// given), before their checksum (fixChecksum). For tests of the receive path that need bytes a
// peer sends, bad ones included, rather than what our encoder makes.
#include "support/CodecTest.h"

namespace PimTest {

// Holdtime 105 only.
inline Bytes helloBytes() { return {0x20, 0, 0, 0, 0, 1, 0, 2, 0, 105}; }
// One group with one (S,G) join.
inline Bytes joinPruneBytes(const char* upstream, const char* group, const char* source) {
  const Knet::IpGenAddr s = ip(source);
  const U8 family = s.af() == Knet::AddressFamily::ipv4 ? 1 : 2;
  Bytes src = {family, 0, 0x04, U8(s.byteLength() * 8)};
  src.insert(src.end(), s.bytes(), s.bytes() + s.byteLength());
  const U8 hostMask = U8(s.byteLength() * 8);
  return concat({{0x23, 0, 0, 0}, encodedUnicastBytes(upstream), {0, 1, 0, 210}, encodedGroupBytes(group, hostMask),
                 {0, 1, 0, 0}, src});
}
inline Bytes assertBytes(const char* group, const char* source) {
  const U8 hostMask = U8(ip(group).byteLength() * 8);
  return concat({{0x25, 0, 0, 0}, encodedGroupBytes(group, hostMask), encodedUnicastBytes(source),
                 {0, 0, 0, 1, 0, 0, 0, 10}});
}
// A DF election Winner is the common part alone: RP, metric preference and metric.
inline Bytes dfElectionBytes(U8 subtype, const char* rp) {
  return concat({{0x2A, U8(subtype << 4), 0, 0}, encodedUnicastBytes(rp), {0, 0, 0, 1, 0, 0, 0, 10}});
}
// A Bootstrap of two ranges with one RP each: the first given (flags 1: admin-scoped), then `second`/16.
inline Bytes bootstrapBytes(const char* bsr, const char* first, U8 mask, U8 flags, const char* second, U8 secondMask) {
  const Bytes rp = concat({encodedUnicastBytes(bsr), {0, 150, 1, 0}});
  return concat({{0x24, 0, 0, 0, 0, 1, 30, 1}, encodedUnicastBytes(bsr), encodedGroupBytes(first, mask, flags),
                 {1, 1, 0, 0}, rp, encodedGroupBytes(second, secondMask), {1, 1, 0, 0}, rp});
}
// A null Register (N bit) whose inner header is an IPv4 or IPv6 header from `source` to `group`.
inline Bytes nullRegisterBytes(const char* source, const char* group) {
  const Knet::IpGenAddr s = ip(source), g = ip(group);
  Bytes inner;
  if (s.af() == Knet::AddressFamily::ipv4) {
    inner = {0x45, 0, 0, 20, 0, 0, 0, 0, 64, 17, 0, 0};
  } else {
    inner = {0x60, 0, 0, 0, 0, 0, 17, 64};
  }
  inner.insert(inner.end(), s.bytes(), s.bytes() + s.byteLength());
  inner.insert(inner.end(), g.bytes(), g.bytes() + g.byteLength());
  return concat({{0x21, 0, 0, 0, 0x40, 0, 0, 0}, inner});
}
inline Bytes registerStopBytes(const char* group, const char* source) {
  return concat({{0x22, 0, 0, 0}, encodedGroupBytes(group, U8(ip(group).byteLength() * 8)),
                 encodedUnicastBytes(source)});
}
// One prefix, priority 1, holdtime 150.
inline Bytes crpAdvBytes(const char* rp, const char* range, U8 mask) {
  return concat({{0x28, 0, 0, 0, 1, 1, 0, 150}, encodedUnicastBytes(rp), encodedGroupBytes(range, mask)});
}

inline Bytes cut(Bytes b, size_t n) {
  b.resize(b.size() - n);
  return b;
}

}  // namespace PimTest
