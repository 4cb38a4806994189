#include "TsharkSupport.h"

#include <pcap/pcap.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "knet/IpHdr.h"
#include "knet/PimHdr.h"

namespace TsharkTest {

using Knet::AddressFamily;
using Knet::IpGenAddr;

std::vector<U8> frame(AddressFamily af, const IpGenAddr& src, const std::vector<U8>& pim, const IpGenAddr& dst) {
  const IpGenAddr to = dst.isSet() ? dst : Knet::allPimRouters(af);
  const bool v4 = af == AddressFamily::ipv4;
  std::vector<U8> f = {0x01, 0x00, 0x5e, 0x00, 0x00, 0x0d,  // to 224.0.0.13's MAC (IPv6: 33:33:00:00:00:0d)
                       0x02, 0x00, 0x00, 0x00, 0x00, 0x01,  // from a local MAC
                       0x08, 0x00};                         // IPv4 (IPv6: 0x86dd)
  if (!v4) {
    f[0] = f[1] = 0x33;
    f[2] = 0x00;
    f[12] = 0x86;
    f[13] = 0xdd;
  }
  const size_t ip = f.size();
  const U32 ipSize = v4 ? Knet::IpHdr::minSize : Knet::Ip6Hdr::size;
  f.resize(ip + ipSize);
  const U16 pimSize = static_cast<U16>(pim.size());
  if (v4) {
    Knet::IpHdr::write(f.data() + ip, 192, static_cast<U16>(ipSize + pimSize), 1, Knet::ipProtoPim, src, to);
  } else {
    Knet::Ip6Hdr::write(f.data() + ip, 192, pimSize, Knet::ipProtoPim, 1, src, to);
  }
  f.insert(f.end(), pim.begin(), pim.end());
  return f;
}

const Json& child(const Json& j, const std::string& key) {
  static const Json missing;
  if (!j.is_object()) return missing;
  auto it = j.find(key);
  return it == j.end() ? missing : *it;
}

std::vector<Json> occurrences(const Json& j) {
  if (j.is_null()) return {};
  if (j.is_array()) return {j.begin(), j.end()};
  return {j};
}

std::string findOnPath(const std::string& program) {
  const char* path = std::getenv("PATH");
  std::stringstream dirs(path ? path : "");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    const std::string candidate = (dir.empty() ? "." : dir) + "/" + program;
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

bool underCi() {
  const char* ci = std::getenv("CI");
  return ci && std::string(ci) == "true";
}

namespace {

std::string shellQuoted(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

}  // namespace

void Dissection::remove() {
  if (!dir.empty()) std::filesystem::remove_all(dir);
  dir.clear();
}

Dissection dissect(const std::string& tshark, const std::vector<std::vector<U8>>& frames) {
  Dissection d;
  std::string dir = (std::filesystem::temp_directory_path() / "pimio-tshark-XXXXXX").string();
  if (!::mkdtemp(dir.data())) {
    d.error = "cannot create a temporary directory under " + std::filesystem::temp_directory_path().string();
    return d;
  }
  d.dir = dir;
  const std::string pcapPath = dir + "/frames.pcap";
  pcap_t* dead = pcap_open_dead(DLT_EN10MB, 65535);
  pcap_dumper_t* dumper = dead ? pcap_dump_open(dead, pcapPath.c_str()) : nullptr;
  if (!dumper) {
    d.error = "cannot write " + pcapPath + (dead ? std::string(": ") + pcap_geterr(dead) : std::string());
    if (dead) pcap_close(dead);
    return d;
  }
  for (size_t i = 0; i < frames.size(); ++i) {
    pcap_pkthdr h{};
    h.ts.tv_sec = static_cast<time_t>(i);
    h.caplen = h.len = static_cast<bpf_u_int32>(frames[i].size());
    pcap_dump(reinterpret_cast<u_char*>(dumper), &h, frames[i].data());
  }
  pcap_dump_close(dumper);
  pcap_close(dead);

  // -n: no name lookups; ip.check_checksum: tshark verifies the IPv4 header checksum only on
  // request (it always verifies PIM's).
  const std::string errPath = dir + "/tshark.err";
  const std::string command = shellQuoted(tshark) + " -n -r " + shellQuoted(pcapPath) +
                              " -T json --no-duplicate-keys -o ip.check_checksum:TRUE 2>" + shellQuoted(errPath);
  std::string out;
  FILE* p = ::popen(command.c_str(), "r");
  if (!p) {
    d.error = "cannot run " + command;
    return d;
  }
  char buf[65536];
  for (size_t n; (n = std::fread(buf, 1, sizeof(buf), p)) > 0;) out.append(buf, n);
  const int status = ::pclose(p);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::ifstream err(errPath);
    d.error = command + " failed: " + std::string(std::istreambuf_iterator<char>(err), {});
    return d;
  }
  d.packets = Json::parse(out, nullptr, false);
  if (!d.packets.is_array() || d.packets.size() != frames.size()) {
    d.error = "tshark's output is not one JSON object per packet:\n" + out.substr(0, 2000);
  }
  return d;
}

}  // namespace TsharkTest
