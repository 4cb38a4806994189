#pragma once
// Failures of the codec as values. Every fixed failure text of a message is a row of that
// message's text table: an enum of the rows in the message's header, the texts beside them in
// its source file. A read or write that returns 0 records the row it failed on (Failure) beside
// the trace line it writes, so that code tests what happened by identity and people read the
// text; the texts themselves are the system's and never change.
#include <array>
#include <sstream>
#include <string_view>

#include "loom/Trace.h"
#include "loom/Types.h"

namespace Routing::Pim::Packet {

// The trace unit of the codec. An inline variable, so that a trace whose level is off costs one
// load and one compare.
inline Loom::TraceUnit pimMessageTraceUnit{"PimMessage"};
inline Loom::TraceUnit& traceUnit() { return pimMessageTraceUnit; }

#define PIM_TRACE(lvl, expr) LOOM_TRACE(::Routing::Pim::Packet::traceUnit(), lvl, expr)

// Trace levels of the codec.
enum TraceLevel : int {
  traceError = 1,
  traceSummary = 3,
  traceDetail = 4,
  traceWarning = 5,
  traceFilter = 6,
  tracePacking = 7,
  traceEntry = 8,
};

// The text tables of the codec, one per message family.
enum class TextTable : U8 {
  none,
  header,
  encodedAddress,
  hello,
  joinPrune,
  registerMessage,
  registerStop,
  assertMessage,
  bootstrap,
  crpAdv,
  dfElection,
};

// One row of a text table: its identity and its fixed text.
template <class Row>
struct TextRow {
  Row row;
  std::string_view text;
};

// Each row enum names its table, and its header declares the lookup of a row's text:
//   enum class HelloText : U8 { ... };
//   template <> inline constexpr TextTable textTableOf<HelloText> = TextTable::hello;
//   std::string_view textOf(HelloText row);
template <class Row>
inline constexpr TextTable textTableOf = TextTable::none;

template <class Row>
std::string_view textOfRow(U8 row) {
  return textOf(static_cast<Row>(row));
}

// The rows of a table are listed in the order of their enum, which the tables check at compile
// time with this.
template <class Row, size_t N>
constexpr bool rowsInOrder(const std::array<TextRow<Row>, N>& rows) {
  for (size_t i = 0; i < N; ++i) {
    if (static_cast<size_t>(rows[i].row) != i) return false;
  }
  return true;
}

class Failure {
 public:
  constexpr Failure() = default;
  template <class Row>
    requires(textTableOf<Row> != TextTable::none)
  constexpr Failure(Row row)  // NOLINT(google-explicit-constructor): a row is a failure
      : table_(textTableOf<Row>), row_(static_cast<U8>(row)), text_(&textOfRow<Row>) {}

  TextTable table() const { return table_; }
  U8 row() const { return row_; }
  explicit operator bool() const { return table_ != TextTable::none; }
  friend bool operator==(const Failure& a, const Failure& b) { return a.table_ == b.table_ && a.row_ == b.row_; }
  // The fixed text of the row (without the values a trace line adds); empty for no failure.
  std::string_view text() const { return text_ ? text_(row_) : std::string_view(); }

 private:
  TextTable table_ = TextTable::none;
  U8 row_ = 0;
  std::string_view (*text_)(U8) = nullptr;
};

inline std::ostream& operator<<(std::ostream& os, const Failure& f) { return os << f.text(); }

// What records failures: messages and the encoded addresses they read through. The first failure
// of an operation is its cause (an encoded address's text before the message's own), so a
// failure is recorded only while none is.
class FailureRecord {
 public:
  const Failure& failure() const { return failure_; }
  void failureIs(const Failure& f) const {
    if (!failure_) failure_ = f;
  }
  // Every operation starts with a clean record.
  void failureClear() const { failure_ = Failure(); }

  // Records the row, traces its text followed by the values at level 1 under the name of the
  // function that failed, and returns 0 for the operation to return. Use PIM_FAIL.
  template <class Row, class... Values>
  U32 fail(const char* function, Row row, const Values&... values) const {
    failureIs(row);
    if (traceUnit().enabled(traceError)) {
      std::ostringstream os;
      os << Failure(row).text();
      ((os << values), ...);
      Loom::traceWrite(traceUnit(), traceError, function, os.str());
    }
    return 0;
  }

 private:
  mutable Failure failure_;
};

// return PIM_FAIL(HelloText::optionLength, remaining, " Expected: ", 4);
#define PIM_FAIL(...) fail(__func__, __VA_ARGS__)

}  // namespace Routing::Pim::Packet
