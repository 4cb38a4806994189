#include "PimMessage/GroupSourceCodec.h"

namespace Routing::Pim::Packet::GroupSource {

bool read(const Message& m, const ReadRows& t, Knet::PktReader& r, Body& out) {
  const Knet::AddressFamily family = m.af();
  EncodedGroupAddress group;
  if (group.read(r) == 0) {
    m.failureIs(group.failure());
    return m.PIM_FAIL(t.groupParse);
  }
  const Knet::IpGenAddr groupAddr = group.prefix().address();
  if (groupAddr.af() != family) return m.PIM_FAIL(t.groupFamily, family, t.groupFamilyAddress, groupAddr);
  if (!group.valid() || !group.isHostPrefix()) {
    m.failureIs(group.failure());
    return m.PIM_FAIL(t.groupPrefix, group.prefix());
  }
  out.group = GroupAddress{groupAddr, group.flags()};

  EncodedUnicastAddress source;
  if (source.read(r) == 0) {
    m.failureIs(source.failure());
    return m.PIM_FAIL(t.sourceParse);
  }
  if (source.address().af() != family) {
    return m.PIM_FAIL(t.sourceFamily, family, t.sourceFamilyAddress, source.address());
  }
  if (!source.valid()) {
    m.failureIs(source.failure());
    return m.PIM_FAIL(t.sourceInvalid, source.address());
  }
  out.source = source.address();
  return true;
}

bool write(const Message& m, const WriteRows& t, Knet::PktWriter& w, const Body& in) {
  if (w.remaining() <= 3) return m.PIM_FAIL(t.headerSpace, w.remaining());
  w.skip(4);
  const Knet::AddressFamily family = m.af();
  if (in.group.address.af() != family) {
    return m.PIM_FAIL(t.family, in.group.address.af(), " Group Address: ", in.group.address);
  }
  EncodedGroupAddress group;
  group.groupAddressIs(in.group);
  if (group.write(w) == 0) {
    m.failureIs(group.failure());
    return m.PIM_FAIL(t.groupWrite);
  }
  if (in.source.af() != family) return m.PIM_FAIL(t.family, in.source.af(), " Source Address: ", in.source);
  EncodedUnicastAddress source;
  source.addressIs(in.source);
  if (source.write(w) == 0) {
    m.failureIs(source.failure());
    return m.PIM_FAIL(t.sourceWrite);
  }
  return true;
}

}  // namespace Routing::Pim::Packet::GroupSource
