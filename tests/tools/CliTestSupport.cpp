#include "tests/tools/CliTestSupport.h"

#include <pcap/pcap.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "knet/Checksum.h"

namespace PimioTest {

namespace {

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

void appendU16(Bytes& b, U16 v) {
  b.push_back(static_cast<U8>(v >> 8));
  b.push_back(static_cast<U8>(v));
}

void storeU16(Bytes& b, size_t at, U16 v) {
  b[at] = static_cast<U8>(v >> 8);
  b[at + 1] = static_cast<U8>(v);
}

}  // namespace

std::vector<std::string> RunResult::outLines() const { return lines(out); }
std::vector<std::string> RunResult::errLines() const { return lines(err); }

std::string quoted(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

RunResult sh(const std::string& dir, const std::string& command) {
  std::string expanded = command;
  for (size_t at = expanded.find("PIMIO"); at != std::string::npos; at = expanded.find("PIMIO", at)) {
    const std::string binary = quoted(PIMIO_BINARY);
    expanded.replace(at, 5, binary);
    at += binary.size();
  }
  const std::string out = dir + "/run.out";
  const std::string err = dir + "/run.err";
  const std::string full = "( " + expanded + " ) >" + quoted(out) + " 2>" + quoted(err);
  const int raw = std::system(full.c_str());
  RunResult r;
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  r.out = readFile(out);
  r.err = readFile(err);
  return r;
}

bool underCi() {
  const char* ci = std::getenv("CI");
  return ci && std::string(ci) == "true";
}

bool haveProgram(const std::string& name) {
  return std::system(("command -v " + quoted(name) + " >/dev/null 2>&1").c_str()) == 0;
}

void writeCapture(const std::string& path, int linkType, const std::vector<CapturedFrame>& frames) {
  pcap_t* handle = pcap_open_dead(linkType, 65535);
  pcap_dumper_t* dumper = handle ? pcap_dump_open(handle, path.c_str()) : nullptr;
  if (!dumper) throw std::runtime_error("cannot write " + path);
  U32 n = 0;
  for (const CapturedFrame& f : frames) {
    pcap_pkthdr h{};
    h.ts.tv_sec = ++n;
    h.caplen = static_cast<U32>(f.bytes.size());
    h.len = f.wireLength ? f.wireLength : h.caplen;
    pcap_dump(reinterpret_cast<u_char*>(dumper), &h, f.bytes.data());
  }
  pcap_dump_close(dumper);
  pcap_close(handle);
}

std::vector<Bytes> readCapture(const std::string& path) {
  char errbuf[PCAP_ERRBUF_SIZE];
  pcap_t* handle = pcap_open_offline(path.c_str(), errbuf);
  if (!handle) throw std::runtime_error(errbuf);
  std::vector<Bytes> frames;
  pcap_pkthdr* h;
  const u_char* data;
  while (pcap_next_ex(handle, &h, &data) == 1) frames.emplace_back(data, data + h->caplen);
  pcap_close(handle);
  return frames;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
}

Bytes ethernetOfType(U16 etherType, const Bytes& payload) {
  Bytes f{0x01, 0x00, 0x5e, 0x00, 0x00, 0x0d, 0x02, 0x00, 0x00, 0x00, 0x00, 0x09};
  appendU16(f, etherType);
  f.insert(f.end(), payload.begin(), payload.end());
  return f;
}

U16 etherTypeOf(const Bytes& ip) { return (ip[0] >> 4) == 6 ? 0x86dd : 0x0800; }

Bytes ethernet(const Bytes& ip, const std::vector<U16>& vlanTpids) {
  Bytes f = ethernetOfType(etherTypeOf(ip), ip);
  size_t at = 12;
  for (U16 tpid : vlanTpids) {
    Bytes tag;
    appendU16(tag, tpid);
    appendU16(tag, 100);  // VLAN 100, priority 0
    f.insert(f.begin() + static_cast<long>(at), tag.begin(), tag.end());
    at += 4;
  }
  return f;
}

// Packet type 2 (multicast), ARPHRD_ETHER, a 6-byte address padded to 8, the protocol.
Bytes linuxSll(const Bytes& ip) {
  Bytes f{0x00, 0x02, 0x00, 0x01, 0x00, 0x06, 0x02, 0x00, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00};
  appendU16(f, etherTypeOf(ip));
  f.insert(f.end(), ip.begin(), ip.end());
  return f;
}

// The protocol, 2 reserved bytes, interface index 3, ARPHRD_ETHER, packet type 2, the address.
Bytes linuxSll2(const Bytes& ip) {
  Bytes f;
  appendU16(f, etherTypeOf(ip));
  f.insert(f.end(), {0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x01, 0x02, 0x06,
                     0x02, 0x00, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00});
  f.insert(f.end(), ip.begin(), ip.end());
  return f;
}

Bytes ipOfEthernet(const Bytes& frame) { return Bytes(frame.begin() + 14, frame.end()); }

Bytes pimMessage(U8 type, const Bytes& body) {
  Bytes m{type, 0x00, 0x00, 0x00};
  m.insert(m.end(), body.begin(), body.end());
  storeU16(m, 2, Knet::internetChecksum(m.data(), m.size()));
  return m;
}

Bytes ipv6Pim(U8 type, const Bytes& body) {
  const Bytes src{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x09};
  const Bytes dst{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0d};
  Bytes m{type, 0x00, 0x00, 0x00};
  m.insert(m.end(), body.begin(), body.end());
  // The pseudo-header: source, destination, upper-layer length (32 bits), three zeros, 103.
  Bytes summed = src;
  summed.insert(summed.end(), dst.begin(), dst.end());
  appendU16(summed, 0);
  appendU16(summed, static_cast<U16>(m.size()));
  summed.insert(summed.end(), {0, 0, 0, 103});
  summed.insert(summed.end(), m.begin(), m.end());
  storeU16(m, 2, Knet::internetChecksum(summed.data(), summed.size()));
  Bytes ip{0x6c, 0x00, 0x00, 0x00};
  appendU16(ip, static_cast<U16>(m.size()));
  ip.insert(ip.end(), {103, 1});
  ip.insert(ip.end(), src.begin(), src.end());
  ip.insert(ip.end(), dst.begin(), dst.end());
  ip.insert(ip.end(), m.begin(), m.end());
  return ip;
}

void ipv4ChecksumIs(Bytes& ip) {
  const size_t headerLength = (ip[0] & 0x0f) * 4u;
  storeU16(ip, 10, 0);
  storeU16(ip, 10, Knet::internetChecksum(ip.data(), headerLength));
}

Bytes ipv4(const Bytes& payload, U8 protocol, U16 fragmentField, const Bytes& options) {
  const size_t headerLength = 20 + options.size();
  Bytes ip{static_cast<U8>(0x40 | headerLength / 4), 0xc0};
  appendU16(ip, static_cast<U16>(headerLength + payload.size()));
  appendU16(ip, 0);
  appendU16(ip, fragmentField);
  ip.insert(ip.end(), {0x01, protocol, 0x00, 0x00, 192, 0, 2, 9, 224, 0, 0, 13});
  ip.insert(ip.end(), options.begin(), options.end());
  ipv4ChecksumIs(ip);
  ip.insert(ip.end(), payload.begin(), payload.end());
  return ip;
}

Bytes withExtensions(const Bytes& ip, const std::vector<Ipv6Extension>& extensions) {
  Bytes out(ip.begin(), ip.begin() + 40);
  const U8 payloadType = ip[6];
  size_t added = 0;
  for (size_t i = 0; i < extensions.size(); ++i) {
    Bytes h = extensions[i].bytes;
    h[0] = i + 1 < extensions.size() ? extensions[i + 1].type : payloadType;
    out.insert(out.end(), h.begin(), h.end());
    added += h.size();
  }
  if (!extensions.empty()) out[6] = extensions.front().type;
  storeU16(out, 4, static_cast<U16>(readU16Be(ip, 4) + added));
  out.insert(out.end(), ip.begin() + 40, ip.end());
  return out;
}

U16 readU16Be(const Bytes& b, size_t at) { return static_cast<U16>(b[at] << 8 | b[at + 1]); }

}  // namespace PimioTest
