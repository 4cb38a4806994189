// A libFuzzer entry point for one reader; the build names it with PIMIO_FUZZ_TARGET.
#include "fuzz/FuzzHarness.h"
#include "loom/Trace.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Traces cost time and fill the terminal; the harness captures what it checks.
  Loom::traceConfigIs("*=0");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const U8* data, size_t size) {
  PimFuzz::fuzzOne(PIMIO_FUZZ_TARGET, data, size);
  return 0;
}
