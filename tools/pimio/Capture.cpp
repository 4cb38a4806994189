#include "tools/pimio/Capture.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace Pimio::Cli {

namespace {

constexpr U16 etherTypeIpv4 = 0x0800;
constexpr U16 etherTypeIpv6 = 0x86dd;
constexpr U32 ethernetHeaderSize = 14;
constexpr U32 snapLength = 65535;
// pcap's link types 228 and 229: raw IPv4 and raw IPv6 without any header.
constexpr int linkTypeIpv4 = 228;
constexpr int linkTypeIpv6 = 229;

U16 readU16Be(std::span<const U8> bytes, size_t at) { return static_cast<U16>(bytes[at] << 8 | bytes[at + 1]); }

// The bytes behind a link-layer header whose protocol field holds an EtherType.
std::optional<std::span<const U8>> ipOfEtherType(std::span<const U8> frame, size_t typeAt, size_t headerSize) {
  if (frame.size() < headerSize) return std::nullopt;
  const U16 type = readU16Be(frame, typeAt);
  if (type != etherTypeIpv4 && type != etherTypeIpv6) return std::nullopt;
  return frame.subspan(headerSize);
}

// Ethernet II, with any number of 802.1Q and 802.1ad VLAN tags between the addresses and the type.
std::optional<std::span<const U8>> ipOfEthernet(std::span<const U8> frame) {
  size_t typeAt = 12;
  while (frame.size() >= typeAt + 2) {
    const U16 type = readU16Be(frame, typeAt);
    if (type != 0x8100 && type != 0x88a8 && type != 0x9100) break;
    typeAt += 4;
  }
  return ipOfEtherType(frame, typeAt, typeAt + 2);
}

// Linux cooked capture: a 16-byte header with the protocol in its last two bytes.
std::optional<std::span<const U8>> ipOfLinuxSll(std::span<const U8> frame) { return ipOfEtherType(frame, 14, 16); }

// Linux cooked capture version 2: a 20-byte header that starts with the protocol.
std::optional<std::span<const U8>> ipOfLinuxSll2(std::span<const U8> frame) { return ipOfEtherType(frame, 0, 20); }

std::optional<std::span<const U8>> ipOfRaw(std::span<const U8> frame) { return frame; }

}  // namespace

// A link type that frames can be read from: how to find the IP packet in a frame.
struct LinkLayer {
  int type;
  std::optional<std::span<const U8>> (*ipPacket)(std::span<const U8> frame);
};

namespace {

constexpr std::array<LinkLayer, 6> linkLayers{{
    {DLT_EN10MB, ipOfEthernet},
    {DLT_LINUX_SLL, ipOfLinuxSll},
    {DLT_LINUX_SLL2, ipOfLinuxSll2},
    {DLT_RAW, ipOfRaw},
    {linkTypeIpv4, ipOfRaw},
    {linkTypeIpv6, ipOfRaw},
}};

// The Ethernet address that IP multicast to `dst` is sent to: 01:00:5e and the low 23 bits of an
// IPv4 group (RFC 1112), 33:33 and the low 32 bits of an IPv6 group (RFC 2464). Unicast goes to
// a fixed locally administered address.
std::array<U8, 6> destinationMac(const Knet::IpGenAddr& dst) {
  const U8* a = dst.bytes();
  if (dst.isMulticast() && dst.af() == Knet::AddressFamily::ipv4) {
    return {0x01, 0x00, 0x5e, static_cast<U8>(a[1] & 0x7f), a[2], a[3]};
  }
  if (dst.isMulticast() && dst.af() == Knet::AddressFamily::ipv6) return {0x33, 0x33, a[12], a[13], a[14], a[15]};
  return {0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
}

constexpr std::array<U8, 6> sourceMac{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};

}  // namespace

std::unique_ptr<CaptureReader> CaptureReader::open(const std::string& path, std::string& error) {
  char errbuf[PCAP_ERRBUF_SIZE] = "";
  pcap_t* handle = pcap_open_offline(path.c_str(), errbuf);
  if (!handle) {
    // libpcap's text may already start with the path, which the caller prints too.
    error = errbuf;
    if (error.starts_with(path + ": ")) error.erase(0, path.size() + 2);
    return nullptr;
  }
  const int type = pcap_datalink(handle);
  for (const LinkLayer& link : linkLayers) {
    if (link.type == type) return std::unique_ptr<CaptureReader>(new CaptureReader(handle, link));
  }
  const char* name = pcap_datalink_val_to_name(type);
  error = "unsupported link type " + std::to_string(type) + " (" + (name ? name : "unknown") +
          "); known: Ethernet, Linux cooked (SLL, SLL2), raw IP";
  pcap_close(handle);
  return nullptr;
}

CaptureReader::~CaptureReader() { pcap_close(handle_); }

bool CaptureReader::next(Frame& frame) {
  pcap_pkthdr* header = nullptr;
  const u_char* data = nullptr;
  const int rc = pcap_next_ex(handle_, &header, &data);
  if (rc == PCAP_ERROR) error_ = pcap_geterr(handle_);
  if (rc != 1) return false;
  frame.number = ++frames_;
  frame.bytes = std::span<const U8>(data, header->caplen);
  return true;
}

std::optional<std::span<const U8>> CaptureReader::ipPacket(const Frame& frame) const {
  return link_.ipPacket(frame.bytes);
}

std::unique_ptr<CaptureWriter> CaptureWriter::open(const std::string& path, std::string& error) {
  pcap_t* handle = pcap_open_dead(DLT_EN10MB, snapLength);
  if (!handle) {
    error = "cannot set up a pcap writer";
    return nullptr;
  }
  pcap_dumper_t* dumper = pcap_dump_open(handle, path.c_str());
  if (!dumper) {
    error = pcap_geterr(handle);
    pcap_close(handle);
    return nullptr;
  }
  return std::unique_ptr<CaptureWriter>(new CaptureWriter(handle, dumper));
}

CaptureWriter::~CaptureWriter() {
  if (dumper_) pcap_dump_close(dumper_);
  pcap_close(handle_);
}

void CaptureWriter::writeIpPacket(const Loom::Ptr<Knet::Pkt>& pkt, const Knet::IpGenAddr& dst) {
  pkt->headAdd(ethernetHeaderSize);
  U8* out = pkt->data();
  const std::array<U8, 6> mac = destinationMac(dst);
  std::copy(mac.begin(), mac.end(), out);
  std::copy(sourceMac.begin(), sourceMac.end(), out + 6);
  const U16 type = dst.af() == Knet::AddressFamily::ipv6 ? etherTypeIpv6 : etherTypeIpv4;
  out[12] = static_cast<U8>(type >> 8);
  out[13] = static_cast<U8>(type);

  pcap_pkthdr header{};
  header.ts.tv_sec = ++frames_;
  header.ts.tv_usec = 0;
  header.caplen = header.len = pkt->size();
  pcap_dump(reinterpret_cast<u_char*>(dumper_), &header, pkt->data());
}

bool CaptureWriter::close(std::string& error) {
  const bool flushed = pcap_dump_flush(dumper_) == 0 && !std::ferror(pcap_dump_file(dumper_));
  pcap_dump_close(dumper_);
  dumper_ = nullptr;
  if (!flushed) error = "write error";
  return flushed;
}

}  // namespace Pimio::Cli
