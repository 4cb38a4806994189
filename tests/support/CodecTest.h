#pragma once
// Helpers shared by the codec tests: packets from byte arrays, checksums computed independently
// of the code under test, and truncation at every prefix length.
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "PimMessage/Failure.h"
#include "knet/Address.h"
#include "knet/Checksum.h"
#include "knet/Pkt.h"
#include "loom/Trace.h"

namespace PimTest {

using Bytes = std::vector<U8>;

inline Loom::Ptr<Knet::Pkt> pkt(const Bytes& b) { return Knet::pktFactory(b); }

inline Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

inline Knet::IpGenAddr ip(const char* text) {
  auto a = Knet::IpGenAddr::parse(text);
  EXPECT_TRUE(a.has_value()) << text;
  return a.value_or(Knet::IpGenAddr());
}

// The bytes of an encoded unicast address, and of an encoded group range with its flags byte
// (native encoding).
inline Bytes encodedUnicastBytes(const char* address) {
  const Knet::IpGenAddr a = ip(address);
  Bytes b = {U8(a.af() == Knet::AddressFamily::ipv4 ? 1 : 2), 0};
  b.insert(b.end(), a.bytes(), a.bytes() + a.byteLength());
  return b;
}
inline Bytes encodedGroupBytes(const char* address, U8 mask, U8 flags = 0) {
  const Knet::IpGenAddr a = ip(address);
  Bytes b = {U8(a.af() == Knet::AddressFamily::ipv4 ? 1 : 2), 0, flags, mask};
  b.insert(b.end(), a.bytes(), a.bytes() + a.byteLength());
  return b;
}

// Stores the right PIM checksum in bytes 2-3, computed with the plain word-by-word sum (the
// reference, not the fast sum that the codec uses). For IPv6 the pseudo-header is included.
inline void fixChecksum(Bytes& b, const Knet::IpGenAddr& src, const Knet::IpGenAddr& dst, size_t covered = 0) {
  if (covered == 0 || covered > b.size()) covered = b.size();
  b[2] = b[3] = 0;
  U32 partial = 0;
  if (src.af() == Knet::AddressFamily::ipv6) {
    Bytes ph(src.bytes(), src.bytes() + 16);
    ph.insert(ph.end(), dst.bytes(), dst.bytes() + 16);
    U32 len = static_cast<U32>(covered);
    Bytes tail = {U8(len >> 24), U8(len >> 16), U8(len >> 8), U8(len), 0, 0, 0, 103};
    ph.insert(ph.end(), tail.begin(), tail.end());
    partial = Knet::onesComplementSumByWord(ph.data(), ph.size());
  }
  U16 sum = static_cast<U16>(~Knet::onesComplementSumByWord(b.data(), covered, partial));
  b[2] = static_cast<U8>(sum >> 8);
  b[3] = static_cast<U8>(sum);
}

// The failure texts of a capture: level-1 lines without the write diagnostic.
inline std::vector<std::string> errors(const Loom::TraceCapture& cap) {
  std::vector<std::string> out;
  for (auto& l : cap.lines()) {
    if (l.level == 1 && l.text.rfind("writeHeader pkt bytes", 0) != 0) out.push_back(l.text);
  }
  return out;
}

inline std::string firstError(const Loom::TraceCapture& cap) {
  auto e = errors(cap);
  return e.empty() ? std::string() : e.front();
}

inline bool startsWith(const std::string& s, const std::string& prefix) { return s.rfind(prefix, 0) == 0; }

// Which failure trace a table row names: the first one, the last one (the message's own text,
// where an encoded address traced its failure first), or all of them joined by " | ".
enum class Trace { first, last, all };

inline std::string failureText(const Loom::TraceCapture& cap, Trace which) {
  const std::vector<std::string> e = errors(cap);
  if (e.empty()) return {};
  if (which == Trace::first) return e.front();
  if (which == Trace::last) return e.back();
  std::string out;
  for (const std::string& t : e) out += (out.empty() ? "" : " | ") + t;
  return out;
}

// One row of a reject table: the bytes of a packet (its checksum is fixed before the read, so
// that the row fails for its own reason) and the exact failure text the read must trace.
struct Reject {
  const char* name;
  Bytes bytes;
  std::string error;
};

// Reads every row with a fresh message; each must fail with its text.
inline void checkRejects(const std::vector<Reject>& rows, const Knet::IpGenAddr& src, const Knet::IpGenAddr& dst,
                         const std::function<U32(const Loom::Ptr<Knet::Pkt>&)>& read, Trace which = Trace::first) {
  for (const Reject& r : rows) {
    Bytes b = r.bytes;
    if (b.size() >= 4) fixChecksum(b, src, dst);
    Loom::TraceCapture cap(1);
    EXPECT_EQ(read(pkt(b)), 0u) << r.name;
    EXPECT_EQ(failureText(cap, which), r.error) << r.name;
  }
}

// One row of a write-failure table: a write set up by the row, and its exact failure text.
struct WriteFailure {
  const char* name;
  std::function<U32()> write;
  std::string error;
};

inline void checkWriteFailures(const std::vector<WriteFailure>& rows, Trace which = Trace::first) {
  for (const WriteFailure& r : rows) {
    Loom::TraceCapture cap(1);
    EXPECT_EQ(r.write(), 0u) << r.name;
    EXPECT_EQ(failureText(cap, which), r.error) << r.name;
  }
}

// The bytes with some of them changed: {index, new value} pairs.
inline Bytes with(Bytes b, std::initializer_list<std::pair<size_t, U8>> changes) {
  for (const auto& [at, v] : changes) b.at(at) = v;
  return b;
}

// ---- Tables that check what an operation records ----
// F is the codec's Failure: a value with ==, <<, text(), and a default that means no failure.

// What a read or write returned and the failure it recorded.
template <class F>
struct Outcome {
  U32 count = 0;
  F failure{};
};

// One row of a table of failing operations: the failure that the operation records, and the
// values that its trace line adds to the failure's text. The recorded failure is the first one
// traced: the line that the command line gives as the reason.
template <class F>
struct FailureRow {
  const char* name;
  std::function<Outcome<F>()> run;
  F failure;
  std::string values;
};

template <class F>
void checkFailures(const std::vector<FailureRow<F>>& rows) {
  for (const FailureRow<F>& r : rows) {
    Loom::TraceCapture cap(1);
    const Outcome<F> o = r.run();
    EXPECT_EQ(o.count, 0u) << r.name;
    EXPECT_EQ(o.failure, r.failure) << r.name;
    EXPECT_EQ(firstError(cap), std::string(r.failure.text()) + r.values) << r.name;
  }
}

// One piece of a packet for checkCuts: a read of the packet cut inside it (after 1 to size-1 of
// its bytes, or 0 bytes for a value) records `failure`; `atStart` overrides that when none of its
// bytes is there, F() meaning that the read succeeds there (an option boundary).
template <class F>
struct Cut {
  U32 size;
  F failure;
  std::optional<F> atStart = std::nullopt;
};

// Cuts the packet at every length from 0 to its size minus one, fixes the checksum of the cut and
// reads it with `read` (pkt -> Outcome<F>, a fresh message each time): a failing read must record
// the piece's failure and trace that failure's line first.
template <class F, class Read>
void checkCuts(const Bytes& full, const std::vector<Cut<F>>& pieces, const Knet::IpGenAddr& src,
               const Knet::IpGenAddr& dst, const Read& read) {
  U32 total = 0;
  for (const Cut<F>& c : pieces) total += c.size;
  ASSERT_EQ(total, full.size()) << "pieces do not add up to the packet";
  U32 start = 0;
  for (const Cut<F>& c : pieces) {
    for (U32 inside = 0; inside < c.size; ++inside) {
      const U32 length = start + inside;
      Bytes cut(full.begin(), full.begin() + length);
      if (cut.size() >= 4) fixChecksum(cut, src, dst);
      Loom::TraceCapture cap(1);
      const Outcome<F> o = read(pkt(cut));
      const F expected = inside == 0 && c.atStart ? *c.atStart : c.failure;
      EXPECT_EQ(o.failure, expected) << "cut at " << length;
      EXPECT_EQ(o.count, expected ? 0u : length) << "cut at " << length;
      EXPECT_TRUE(startsWith(firstError(cap), std::string(expected.text()))) << "cut at " << length;
    }
    start += c.size;
  }
}

// ---- Failures as values ----

// What a read or a write returned, and the failure the message recorded (none on success).
using RecordedOutcome = Outcome<Routing::Pim::Packet::Failure>;

// One row of a reject table that names the recorded failure (the first of the operation: an
// encoded address's row where the address failed first) beside the text the read traces.
struct RecordedReject {
  const char* name;
  Bytes bytes;
  Routing::Pim::Packet::Failure failure;
  std::string error;
};

// Reads every row (its checksum fixed first) with a fresh message; each must return 0, record
// its failure and trace its text.
inline void checkRecordedRejects(const std::vector<RecordedReject>& rows, const Knet::IpGenAddr& src,
                                 const Knet::IpGenAddr& dst,
                                 const std::function<RecordedOutcome(const Loom::Ptr<Knet::Pkt>&)>& read,
                                 Trace which = Trace::first) {
  for (const RecordedReject& r : rows) {
    Bytes b = r.bytes;
    if (b.size() >= 4) fixChecksum(b, src, dst);
    Loom::TraceCapture cap(1);
    const RecordedOutcome o = read(pkt(b));
    EXPECT_EQ(o.count, 0u) << r.name;
    EXPECT_EQ(o.failure, r.failure) << r.name << ": recorded \"" << o.failure << "\"";
    EXPECT_EQ(failureText(cap, which), r.error) << r.name;
  }
}

// One row of a write-failure table that names the recorded failure beside the traced text.
struct RecordedWriteFailure {
  const char* name;
  std::function<RecordedOutcome()> write;
  Routing::Pim::Packet::Failure failure;
  std::string error;
};

inline void checkRecordedWriteFailures(const std::vector<RecordedWriteFailure>& rows, Trace which = Trace::first) {
  for (const RecordedWriteFailure& r : rows) {
    Loom::TraceCapture cap(1);
    const RecordedOutcome o = r.write();
    EXPECT_EQ(o.count, 0u) << r.name;
    EXPECT_EQ(o.failure, r.failure) << r.name << ": recorded \"" << o.failure << "\"";
    EXPECT_EQ(failureText(cap, which), r.error) << r.name;
  }
}

// The text a value renders as with operator<<.
template <class T>
std::string text(const T& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

}  // namespace PimTest
