#pragma once
// What the tshark oracle tests share: dissecting a capture once with `tshark -T json`, and reading
// tshark's JSON.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "knet/Address.h"
#include "tests/tools/CliTestSupport.h"

namespace TsharkTest {

using Json = nlohmann::ordered_json;  // keeps tshark's order of fields

// The member of an object, or null.
const Json& child(const Json& j, const std::string& key);
// With --no-duplicate-keys a field that occurs once is a value and one that repeats an array.
std::vector<Json> occurrences(const Json& j);

// Every value of a field anywhere under `j`, in tshark's order, separated by blanks; the first.
std::string values(const Json& j, const std::string& key);
std::string first(const Json& j, const std::string& key);

// One run of tshark over a capture of the frames, in a temporary directory of its own.
struct Dissection {
  std::string dir;    // removed by remove()
  Json packets;       // one object per frame
  std::string error;  // empty when all went well
  void remove();
};
Dissection dissect(const std::string& tshark, const std::vector<std::vector<U8>>& frames);

// The fixture of an oracle suite: the suite encodes its cases into `encoded_` and frames, and
// dissects the frames once; each test then reads its packets from `dissection_.packets`.
// Without tshark the tests skip, or fail under CI.
template <class Encoded>
class OracleTest : public testing::TestWithParam<size_t> {
 protected:
  static void findTshark() { tshark_ = PimioTest::haveProgram("tshark") ? "tshark" : ""; }
  static void dissectFrames(const std::vector<std::vector<U8>>& frames) {
    dissection_ = dissect(tshark_, frames);
    error_ = dissection_.error;
  }

  static void TearDownTestSuite() {
    dissection_.remove();
    encoded_.clear();
  }

  void SetUp() override {
    if (tshark_.empty()) {
      if (PimioTest::underCi()) FAIL() << "tshark is not on the PATH; CI needs it for the oracle test";
      GTEST_SKIP() << "tshark is not on the PATH (install the tshark package to run the oracle test)";
    }
    ASSERT_TRUE(error_.empty()) << error_;
  }

  static inline std::string tshark_;
  static inline std::string error_;  // what went wrong while the suite was set up
  static inline Dissection dissection_;
  static inline std::vector<Encoded> encoded_;
};

}  // namespace TsharkTest
