#pragma once
// Support for the tests that run the pimio command line: the built binary, capture files, and the
// packets the tests feed it.
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "loom/Types.h"

namespace PimioTest {

using Bytes = std::vector<U8>;

struct RunResult {
  int status = -1;
  std::string out, err;
  std::vector<std::string> outLines() const;
  std::vector<std::string> errLines() const;
};
// Runs `/bin/sh -c command`, its output collected through files in `dir`; "PIMIO" in the command
// stands for the binary under test.
RunResult sh(const std::string& dir, const std::string& command);
std::string quoted(const std::string& s);  // single quotes for the shell
bool underCi();                            // CI=true: a test that cannot run fails, not skips
bool haveProgram(const std::string& name);

struct CapturedFrame {
  Bytes bytes;
  U32 wireLength = 0;  // 0: as long as the bytes
};
void writeCapture(const std::string& path, int linkType, const std::vector<CapturedFrame>& frames);
std::vector<Bytes> readCapture(const std::string& path);
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

// Ethernet to 01:00:5e:00:00:0d around an IP packet (or `etherType` and any payload), a 4-byte
// tag for each TPID given; the IP packet of a frame without tags.
Bytes ethernet(const Bytes& ip, const std::vector<U16>& vlanTpids = {}, U16 etherType = 0);
Bytes ipOfEthernet(const Bytes& frame);
U16 etherTypeOf(const Bytes& ip);

// An IPv4 packet 192.0.2.9 -> 224.0.0.13, TTL 1, header checksum set; `options` extend the header.
Bytes ipv4(const Bytes& payload, U8 protocol = 103, U16 fragmentField = 0, const Bytes& options = {});
void ipv4ChecksumIs(Bytes& ip);
// A PIM message in an IPv4 packet as above or an IPv6 packet fe80::9 -> ff02::d (traffic class
// 192, hop limit 1), its checksum set when it has one (a Register's over its first 8 bytes).
Bytes pimIp(bool v6, Bytes pim);
// The message of the first byte `type` with `body` behind the header, in IPv4 or IPv6.
Bytes pim4(U8 type, const Bytes& body);
Bytes pim6(U8 type, const Bytes& body);

// Puts IPv6 extension headers between the IPv6 header of `ip` and its payload (their first byte,
// next header, is filled in).
struct Ipv6Extension {
  U8 type;
  Bytes bytes;
};
Bytes withExtensions(const Bytes& ip, const std::vector<Ipv6Extension>& extensions);
U16 readU16Be(const Bytes& b, size_t at);
// True if every member of `part` is in `whole` with that value (objects compared member by member,
// arrays element by element).
bool within(const nlohmann::json& part, const nlohmann::json& whole);
Bytes concat(Bytes a, const Bytes& b);

}  // namespace PimioTest
