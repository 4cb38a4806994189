#include "PimMessage/GroupSourceCodec.h"

namespace Routing::Pim::Packet::GroupSource {

U32 read(Message& m, const ReadTexts& t, const Loom::Ptr<Knet::Pkt>& pkt, U32 offset, Body& out) {
  if (m.readHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, t.headerParse);
    return 0;
  }
  const Knet::AddressFamily family = m.af();
  EncodedGroupAddress group;
  const U32 groupLen = group.readGroupAddress(pkt, offset + 4);
  if (groupLen == 0) {
    PIM_TRACE(traceError, t.groupParse);
    return 0;
  }
  const Knet::IpGenAddr groupAddr = group.prefix().address();
  if (groupAddr.af() != family) {
    PIM_TRACE(traceError, t.groupFamily << family << t.groupFamilyAddress << groupAddr);
    return 0;
  }
  if (!group.valid() || !group.isHostPrefix()) {
    PIM_TRACE(traceError, t.groupPrefix << group.prefix());
    return 0;
  }
  out.group = GroupAddress{groupAddr, group.flags()};

  EncodedUnicastAddress source;
  const U32 at = offset + 4 + groupLen;
  const U32 sourceLen = source.readUnicastAddress(pkt, at);
  if (sourceLen == 0) {
    PIM_TRACE(traceError, t.sourceParse);
    return 0;
  }
  if (source.address().af() != family) {
    PIM_TRACE(traceError, t.sourceFamily << family << t.sourceFamilyAddress << source.address());
    return 0;
  }
  if (!source.valid()) {
    PIM_TRACE(traceError, t.sourceInvalid << source.address());
    return 0;
  }
  out.source = source.address();
  return at + sourceLen;
}

U32 write(const Message& m, const WriteTexts& t, const Loom::Ptr<Knet::Pkt>& pkt, U32 offset, const Body& in) {
  const S64 remaining = S64(pkt->size()) - S64(offset);
  if (remaining <= 3) {
    PIM_TRACE(traceError, t.headerSpace << remaining);
    return 0;
  }
  const Knet::AddressFamily family = m.af();
  if (in.group.address.af() != family) {
    PIM_TRACE(traceError, t.family << in.group.address.af() << " Group Address: " << in.group.address);
    return 0;
  }
  EncodedGroupAddress group;
  group.groupAddressIs(in.group);
  const U32 groupLen = group.writeGroupAddress(pkt, offset + 4);
  if (groupLen == 0) {
    PIM_TRACE(traceError, t.groupWrite);
    return 0;
  }
  if (in.source.af() != family) {
    PIM_TRACE(traceError, t.family << in.source.af() << " Source Address: " << in.source);
    return 0;
  }
  EncodedUnicastAddress source;
  source.addressIs(in.source);
  const U32 at = offset + 4 + groupLen;
  const U32 sourceLen = source.writeUnicastAddress(pkt, at);
  if (sourceLen == 0) {
    PIM_TRACE(traceError, t.sourceWrite);
    return 0;
  }
  return at + sourceLen;
}

}  // namespace Routing::Pim::Packet::GroupSource
