#include "PimMessage/Message.h"

#include <array>
#include <charconv>
#include <stdexcept>
#include <string>

#include "knet/PimHdr.h"
#include "loom/Exception.h"

namespace Routing::Pim::Packet {

Loom::LogMessage PIMBSR_CRPADV_ZONE_SET(
    "PIMBSR_CRPADV_ZONE_SET", 6, "Received Candidate-RP Advertisements from C-RP %s with Zone bit set",
    "This is an unusual condition for which RFC 5059 mentions BSR mechanism to log such activities. "
    "This log is only for informational purpose and is produced when a multicast boundary router is "
    "configured as a Candidate RP. This does not pose any operational issue.",
    "In order to not see this message remove Candidate-RP configuration from the multicast boundary "
    "router.",
    60.0);

Loom::LogMessage PIM_MESSAGE_INVALID_ENCODED_SOURCE(
    "PIM_MESSAGE_INVALID_ENCODED_SOURCE", 4, "Attempted to send %s message with a non-unicast encoded source %s",
    "A PIM message contains an S,G where the encoded source is not unicast.",
    "Collect show-tech and contact support.");

Loom::LogMessage PIM_MESSAGE_INVALID_ENCODED_GROUP(
    "PIM_MESSAGE_INVALID_ENCODED_GROUP", 4,
    "Attempted to send %s message with a non-multicast encoded group %s",
    "A PIM message contains an S,G where the encoded group is not multicast.",
    "Collect show-tech and contact support.");

Loom::LogMessage PIM_MESSAGE_AF_MISMATCH(
    "PIM_MESSAGE_AF_MISMATCH", 4, "Attempted to send %s %s message with %s address in the message",
    "A PIM message encountered multiple address families while sending.",
    "Collect show-tech and contact support.");

namespace {
constexpr std::array<TextRow<HeaderText>, 5> headerTexts{{
    {HeaderText::missingHeader, "Invalid Pim Message - Missing Pim Header - Remaining: "},
    {HeaderText::checksum, "Invalid Pim Message - Checksum - Received: "},
    {HeaderText::registerChecksum, "Invalid Pim Message - Register Checksum - Received: "},
    {HeaderText::invalidFamily, "Invalid address family"},
    {HeaderText::writeSpace, "Invalid Pim Message - Header - Unavailable Space - Remaining: "},
}};
static_assert(rowsInOrder(headerTexts));

constexpr U8 registerType = 0x21;
// A Register's checksum covers only its header and the flags word.
constexpr U32 registerChecksumLength = 8;
}  // namespace

std::string_view textOf(HeaderText row) { return headerTexts[static_cast<size_t>(row)].text; }

Message::Message(Knet::PimMessageType pimMessageType) : pimMessageType_(pimMessageType) {}

Knet::AddressFamily Message::af() const { return srcIp_.isSet() ? srcIp_.af() : dstIp_.af(); }

U32 Message::readHeader(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  // Every read starts here.
  failureClear();
  const S64 remaining = S64(pkt->size()) - S64(offset);
  if (remaining <= 3) return PIM_FAIL(HeaderText::missingHeader, remaining);
  const Knet::PimCommonHdr hdr(pkt->data() + offset, static_cast<U32>(remaining));
  PIM_TRACE(traceDetail, __func__ << " pimHdr " << hdr);
  reserved_ = hdr.reserved();
  const bool isRegister = hdr.messageType().value() == registerType;
  length_ = isRegister ? registerChecksumLength : static_cast<U32>(remaining);

  switch (af()) {
    case Knet::AddressFamily::ipv4: {
      U16 sum = hdr.computedChecksumU16(static_cast<U16>(length_));
      if (sum == 0) break;
      if (!isRegister) return PIM_FAIL(HeaderText::checksum, hdr.checksum(), " Calculated: ", sum);
      sum = hdr.computedChecksumU16(static_cast<U16>(remaining));
      if (sum == 0) break;
      return PIM_FAIL(HeaderText::registerChecksum, hdr.checksum(), " Calculated: ", sum);
    }
    case Knet::AddressFamily::ipv6: {
      Knet::PimPseudoHdrIpv6 pseudo{srcIp_, dstIp_, length_, Knet::ipProtoPim};
      U16 sum = hdr.computedChecksumIpv6(pseudo);
      PIM_TRACE(traceDetail, " pseduHdr " << pseudo << " Recompute Ipv6 pseudoHdr Checksum " << sum << " pimHdr "
                                          << hdr << " validChecksum " << 65535);
      // 0xFFFF is accepted as well as 0: both are zero in one's-complement arithmetic.
      if (sum == 0 || sum == 0xffff) break;
      if (!isRegister) return PIM_FAIL(HeaderText::checksum, hdr.checksum(), " Calculated: ", sum);
      pseudo.length = static_cast<U32>(remaining);
      sum = hdr.computedChecksumIpv6(pseudo);
      if (sum == 0 || sum == 0xffff) break;
      return PIM_FAIL(HeaderText::registerChecksum, hdr.checksum(), " Calculated: ", sum);
    }
    default:
      return PIM_FAIL(HeaderText::invalidFamily);
  }
  PIM_TRACE(traceDetail, "readHeader" << ": RX: <PIM version=2 type=" << unsigned(hdr.messageType().type()) << " ("
                                      << hdr.messageType().name() << ") reserved=" << unsigned(reserved_)
                                      << " checksum=" << hdr.checksum() << " length=" << length_ << " remaining "
                                      << remaining << ">");
  return 4;
}

U32 Message::writeHeader(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  const S64 remaining = S64(pkt->size()) - S64(offset);
  if (remaining <= 3) return PIM_FAIL(HeaderText::writeSpace, remaining);
  PIM_TRACE(traceError, "writeHeader" << " pkt bytes: " << pkt->size() << ", offset " << offset);
  Knet::PimCommonHdr hdr(pkt->data() + offset, static_cast<U32>(remaining));
  hdr.messageTypeIs(pimMessageType_);
  hdr.reservedIs(reserved_);
  hdr.checksumIs(0);
  U16 checksum = 0;
  switch (af()) {
    case Knet::AddressFamily::ipv4:
      checksum = hdr.computedChecksum(static_cast<U16>(length_));
      break;
    case Knet::AddressFamily::ipv6: {
      const U32 covered = pimMessageType_.value() == registerType ? registerChecksumLength : length_;
      checksum = hdr.computedChecksumIpv6(Knet::PimPseudoHdrIpv6{srcIp_, dstIp_, covered, Knet::ipProtoPim});
      break;
    }
    default:
      return PIM_FAIL(HeaderText::invalidFamily);
  }
  hdr.checksumIs(checksum);
  PIM_TRACE(traceDetail, "writeHeader" << " TX: <PIM version=2 type=" << unsigned(pimMessageType_.type()) << " ("
                                       << pimMessageType_.name() << ") reserved=" << unsigned(reserved_)
                                       << " checksum=" << checksum << " length=" << length_ << ">");
  return 4;
}

U64 boundedValueFromString(std::string_view text, U64 max, const char* rangeText, const char* type) {
  U64 v = 0;
  auto [p, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec == std::errc::result_out_of_range || (ec == std::errc() && v > max)) throw Loom::RangeException(rangeText);
  if (ec != std::errc() || p != text.data() + text.size()) {
    throw std::invalid_argument(std::string(type) + ": not a number: " + std::string(text));
  }
  return v;
}

Loom::Ptr<Message> messageFactory(Knet::PimMessageType pimMessageType) { return new Message(pimMessageType); }

}  // namespace Routing::Pim::Packet
