#include "tests/tools/CliTestSupport.h"

#include <pcap/pcap.h>
#include <sys/wait.h>

#include <algorithm>
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

void storeU16(Bytes& b, size_t at, U16 v) {
  b[at] = static_cast<U8>(v >> 8);
  b[at + 1] = static_cast<U8>(v);
}

Bytes u16(U16 v) { return {static_cast<U8>(v >> 8), static_cast<U8>(v)}; }

const Bytes src6{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x09};
const Bytes dst6{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0d};

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
  const std::string binary = quoted(PIMIO_BINARY);
  for (size_t at = expanded.find("PIMIO"); at != std::string::npos; at = expanded.find("PIMIO", at + binary.size())) {
    expanded.replace(at, 5, binary);
  }
  const std::string out = dir + "/run.out", err = dir + "/run.err";
  const int raw = std::system(("( " + expanded + " ) >" + quoted(out) + " 2>" + quoted(err)).c_str());
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), readFile(out), readFile(err)};
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

void writeFile(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

U16 etherTypeOf(const Bytes& ip) { return (ip[0] >> 4) == 6 ? 0x86dd : 0x0800; }

Bytes ethernet(const Bytes& ip, const std::vector<U16>& vlanTpids, U16 etherType) {
  Bytes f{0x01, 0x00, 0x5e, 0x00, 0x00, 0x0d, 0x02, 0x00, 0x00, 0x00, 0x00, 0x09};
  for (U16 tpid : vlanTpids) f = concat(concat(f, u16(tpid)), u16(100));  // VLAN 100, priority 0
  return concat(concat(f, u16(etherType ? etherType : etherTypeOf(ip))), ip);
}

Bytes ipOfEthernet(const Bytes& frame) { return Bytes(frame.begin() + 14, frame.end()); }

void ipv4ChecksumIs(Bytes& ip) {
  storeU16(ip, 10, 0);
  storeU16(ip, 10, Knet::internetChecksum(ip.data(), (ip[0] & 0x0f) * 4u));
}

Bytes ipv4(const Bytes& payload, U8 protocol, U16 fragmentField, const Bytes& options) {
  const size_t headerLength = 20 + options.size();
  Bytes ip = concat({static_cast<U8>(0x40 | headerLength / 4), 0xc0}, u16(static_cast<U16>(headerLength + payload.size())));
  ip = concat(concat(concat(ip, {0, 0}), u16(fragmentField)), {0x01, protocol, 0x00, 0x00, 192, 0, 2, 9, 224, 0, 0, 13});
  ip = concat(ip, options);
  ipv4ChecksumIs(ip);
  return concat(ip, payload);
}

Bytes pimIp(bool v6, Bytes pim) {
  if (pim.size() >= 4) {
    const size_t covered = pim[0] == 0x21 ? std::min<size_t>(8, pim.size()) : pim.size();
    // IPv6: the pseudo-header of source, destination, upper-layer length, three zeros, 103.
    const Bytes pseudo = concat(concat(concat(src6, dst6), {0, 0}), concat(u16(U16(covered)), {0, 0, 0, 103}));
    storeU16(pim, 2, 0);
    storeU16(pim, 2, Knet::internetChecksum(pim.data(), covered, v6 ? Knet::onesComplementSum(pseudo.data(), 40) : 0));
  }
  if (!v6) return ipv4(pim);
  const Bytes header = concat(concat({0x6c, 0x00, 0x00, 0x00}, u16(U16(pim.size()))), {103, 1});
  return concat(concat(concat(header, src6), dst6), pim);
}

Bytes pim4(U8 type, const Bytes& body) { return pimIp(false, concat({type, 0, 0, 0}, body)); }
Bytes pim6(U8 type, const Bytes& body) { return pimIp(true, concat({type, 0, 0, 0}, body)); }

Bytes withExtensions(const Bytes& ip, const std::vector<Ipv6Extension>& extensions) {
  Bytes out(ip.begin(), ip.begin() + 40);
  size_t added = 0;
  for (size_t i = 0; i < extensions.size(); ++i) {
    Bytes h = extensions[i].bytes;
    h[0] = i + 1 < extensions.size() ? extensions[i + 1].type : ip[6];
    out = concat(out, h);
    added += h.size();
  }
  if (!extensions.empty()) out[6] = extensions.front().type;
  storeU16(out, 4, static_cast<U16>(readU16Be(ip, 4) + added));
  return concat(out, Bytes(ip.begin() + 40, ip.end()));
}

bool within(const nlohmann::json& part, const nlohmann::json& whole) {
  if (part.is_object() && whole.is_object()) {
    for (const auto& [key, value] : part.items()) {
      if (!whole.contains(key) || !within(value, whole[key])) return false;
    }
    return true;
  }
  if (!part.is_array() || !whole.is_array()) return part == whole;
  if (part.size() != whole.size()) return false;
  for (size_t i = 0; i < part.size(); ++i) {
    if (!within(part[i], whole[i])) return false;
  }
  return true;
}

U16 readU16Be(const Bytes& b, size_t at) { return static_cast<U16>(b[at] << 8 | b[at + 1]); }

Bytes concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

}  // namespace PimioTest
