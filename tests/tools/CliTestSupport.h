#pragma once
// Support for the tests of the pimio command line: running the built binary, reading and writing
// capture files, and building the packets that the tests feed it.
#include <string>
#include <vector>

#include "loom/Types.h"

namespace PimioTest {

using Bytes = std::vector<U8>;

// ---- Running pimio ----

struct RunResult {
  int status = -1;
  std::string out;
  std::string err;
  std::vector<std::string> outLines() const;
  std::vector<std::string> errLines() const;
};

// Runs `/bin/sh -c command` with standard output and error collected through files in `dir`.
// "PIMIO" in the command stands for the pimio binary under test.
RunResult sh(const std::string& dir, const std::string& command);

// Single quotes for the shell.
std::string quoted(const std::string& s);

// True under CI (CI=true), where a test that cannot run must fail rather than skip.
bool underCi();
// True if the program is found on PATH.
bool haveProgram(const std::string& name);

// ---- Capture files ----

struct CapturedFrame {
  Bytes bytes;
  U32 wireLength = 0;  // 0: as long as the bytes
};

void writeCapture(const std::string& path, int linkType, const std::vector<CapturedFrame>& frames);
std::vector<Bytes> readCapture(const std::string& path);
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

// ---- Link layers around an IP packet ----

// Ethernet to 01:00:5e:00:00:0d, with a 4-byte tag for each TPID given (0x8100, 0x88a8).
Bytes ethernet(const Bytes& ip, const std::vector<U16>& vlanTpids = {});
Bytes ethernetOfType(U16 etherType, const Bytes& payload);
Bytes linuxSll(const Bytes& ip);
Bytes linuxSll2(const Bytes& ip);
// The IP packet of an Ethernet frame without tags.
Bytes ipOfEthernet(const Bytes& frame);

// ---- IP and PIM ----

// A PIM message of the first byte `type` with `body` behind the header, checksum set for IPv4.
Bytes pimMessage(U8 type, const Bytes& body);
// An IPv4 packet 192.0.2.9 -> 224.0.0.13 with TTL 1; `options` (a multiple of 4 bytes) extend
// the header. Header checksum set.
Bytes ipv4(const Bytes& payload, U8 protocol = 103, U16 fragmentField = 0, const Bytes& options = {});
// An IPv6 packet fe80::9 -> ff02::d with traffic class 192 and hop limit 1 around a PIM message
// of the first byte `type` with `body` behind the header, its checksum set over the pseudo-header.
Bytes ipv6Pim(U8 type, const Bytes& body);
// Recomputes an IPv4 header's checksum after a test changed it.
void ipv4ChecksumIs(Bytes& ip);

// An IPv6 extension header: its type and its bytes (the first byte, next header, is filled in).
struct Ipv6Extension {
  U8 type;
  Bytes bytes;
};
// Puts extension headers between the IPv6 header of `ip` and its payload.
Bytes withExtensions(const Bytes& ip, const std::vector<Ipv6Extension>& extensions);

U16 readU16Be(const Bytes& b, size_t at);

}  // namespace PimioTest
