#include "TsharkSupport.h"

#include <pcap/pcap.h>
#include <unistd.h>

#include <filesystem>

#include "knet/IpHdr.h"
#include "knet/PimHdr.h"
#include "tests/tools/CliTestSupport.h"

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
  std::vector<PimioTest::CapturedFrame> captured;
  for (const auto& f : frames) captured.push_back({f});
  PimioTest::writeCapture(dir + "/frames.pcap", DLT_EN10MB, captured);
  // -n: no name lookups; ip.check_checksum: tshark verifies the IPv4 header checksum only on
  // request (it always verifies PIM's).
  const PimioTest::RunResult r = PimioTest::sh(dir, PimioTest::quoted(tshark) + " -n -r " +
                                                        PimioTest::quoted(dir + "/frames.pcap") +
                                                        " -T json --no-duplicate-keys -o ip.check_checksum:TRUE");
  if (r.status != 0) {
    d.error = "tshark failed: " + r.err;
    return d;
  }
  d.packets = Json::parse(r.out, nullptr, false);
  if (!d.packets.is_array() || d.packets.size() != frames.size()) {
    d.error = "tshark's output is not one JSON object per packet:\n" + r.out.substr(0, 2000);
  }
  return d;
}

}  // namespace TsharkTest
