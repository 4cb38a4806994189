#pragma once
// The body that Register-Stop and Assert begin with: an Encoded-Group address that must be a
// multicast host address of the message's family, then an Encoded-Unicast source of the same
// family. The two messages differ only in their rows. Internal to the codec.
#include "PimMessage/EncodedAddress.h"
#include "PimMessage/Message.h"
#include "knet/Cursor.h"

namespace Routing::Pim::Packet::GroupSource {

// The rows of one message's table that the body fails with.
struct ReadRows {
  Failure groupParse;
  Failure groupFamily;  // then the message family, groupFamilyAddress and the group
  const char* groupFamilyAddress;
  Failure groupPrefix;  // then the prefix
  Failure sourceParse;
  Failure sourceFamily;  // then the message family, sourceFamilyAddress and the source
  const char* sourceFamilyAddress;
  Failure sourceInvalid;  // then the source
};

struct WriteRows {
  Failure headerSpace;  // then the room
  Failure family;       // then the address's family, " Group Address: " or " Source Address: "
  Failure groupWrite;
  Failure sourceWrite;
};

struct Body {
  GroupAddress group;
  Knet::IpGenAddr source;
};

// Reads and checks both addresses under the cursor (behind the header), moving it past them;
// false after the failure is recorded on the message and traced.
bool read(const Message& m, const ReadRows& t, Knet::PktReader& r, Body& out);

// Checks the room for the header under the cursor, moves past it (the header itself is the
// caller's) and writes both addresses; false after the failure is recorded and traced.
bool write(const Message& m, const WriteRows& t, Knet::PktWriter& w, const Body& in);

}  // namespace Routing::Pim::Packet::GroupSource
