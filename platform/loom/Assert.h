#pragma once
// Assertions for programming errors (a null where none is allowed, an unknown address family,
// an index out of range). They stay on in release builds: the process stops with the text.
#include <cstdio>
#include <cstdlib>

namespace Loom {
[[noreturn]] inline void assertionFailed(const char* text, const char* file, int line) {
  std::fprintf(stderr, "Assertion failed: %s (%s:%d)\n", text, file, line);
  std::fflush(stderr);
  std::abort();
}
}  // namespace Loom

#define LOOM_ASSERT(cond, text)                                           \
  do {                                                                    \
    if (!(cond)) ::Loom::assertionFailed((text), __FILE__, __LINE__);     \
  } while (0)
