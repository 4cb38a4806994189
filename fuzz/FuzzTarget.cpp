// A libFuzzer entry point for one reader; the build names it with PIMIO_FUZZ_TARGET.
#include <string>
#include <vector>

#include "PimData/BootstrapData.h"
#include "PimData/JoinPruneData.h"
#include "fuzz/FuzzHarness.h"
#include "loom/Trace.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Traces cost time and fill the terminal; the harness captures what it checks.
  Loom::traceConfigIs("*=0");
  // libFuzzer looks for leaks after every input that allocated more than it freed. Storage that
  // the library keeps on purpose (the ring log's lines, the recycled records) is made here once,
  // so that inputs do not look like leaks.
  const std::string line(512, 'x');
  for (size_t i = 0; i < Loom::RingLog::instance().capacity(); ++i) {
    Loom::RingLog::instance().write("Fuzz", 1, "warmUp", line);
  }
  Loom::RingLog::instance().clear();
  std::vector<Loom::Ptr<Loom::PtrInterface>> records;
  for (int i = 0; i < 4096; ++i) {
    records.emplace_back(new Routing::Pim::JoinPruneGroupData(Knet::IpGenAddr()));
    records.emplace_back(new Routing::Pim::BootstrapGroupData(Knet::IpGenPrefix()));
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const U8* data, size_t size) {
  PimFuzz::fuzzOne(PIMIO_FUZZ_TARGET, data, size);
  return 0;
}
