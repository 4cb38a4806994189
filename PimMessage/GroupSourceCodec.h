#pragma once
// The body that Register-Stop and Assert begin with: an Encoded-Group address that must be a
// multicast host address of the message's family, then an Encoded-Unicast source of the same
// family. The two messages differ only in their texts. Internal to the codec.
#include "PimMessage/EncodedAddress.h"
#include "PimMessage/Message.h"

namespace Routing::Pim::Packet::GroupSource {

struct ReadTexts {
  const char* headerParse;
  const char* groupParse;
  const char* groupFamily;  // then the message family, groupFamilyAddress and the group
  const char* groupFamilyAddress;
  const char* groupPrefix;  // then the prefix
  const char* sourceParse;
  const char* sourceFamily;  // then the message family, sourceFamilyAddress and the source
  const char* sourceFamilyAddress;
  const char* sourceInvalid;  // then the source
};

struct WriteTexts {
  const char* headerSpace;  // then the room
  const char* family;       // then the address's family, " Group Address: " or " Source Address: "
  const char* groupWrite;
  const char* sourceWrite;
};

struct Body {
  GroupAddress group;
  Knet::IpGenAddr source;
};

// Reads and checks the header and both addresses at offset; returns the offset just behind the
// source, or 0 (after one error trace).
U32 read(Message& m, const ReadTexts& t, const Loom::Ptr<Knet::Pkt>& pkt, U32 offset, Body& out);

// Writes both addresses behind the header room at offset (the header itself is the caller's);
// returns the offset just behind the source, or 0 (after one error trace).
U32 write(const Message& m, const WriteTexts& t, const Loom::Ptr<Knet::Pkt>& pkt, U32 offset, const Body& in);

}  // namespace Routing::Pim::Packet::GroupSource
