#include "TsharkSupport.h"

#include <pcap/pcap.h>
#include <unistd.h>

#include <filesystem>

#include "tests/tools/CliTestSupport.h"

namespace TsharkTest {

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

std::string values(const Json& j, const std::string& key) {
  std::string out;
  auto add = [&](const std::string& v) { out += (out.empty() ? "" : " ") + v; };
  if (j.is_object()) {
    for (auto it = j.begin(); it != j.end(); ++it) {
      for (const Json& v : it.key() == key ? occurrences(it.value()) : std::vector<Json>{}) {
        if (!v.is_structured()) add(v.is_string() ? v.get<std::string>() : v.dump());
      }
      if (it.key() == key + "_tree") continue;  // tshark repeats the field in its tree
      if (const std::string inner = values(it.value(), key); !inner.empty()) add(inner);
    }
  } else if (j.is_array()) {
    for (const Json& e : j) {
      if (const std::string inner = values(e, key); !inner.empty()) add(inner);
    }
  }
  return out;
}

std::string first(const Json& j, const std::string& key) { return values(j, key).substr(0, values(j, key).find(' ')); }

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
