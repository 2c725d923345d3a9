// What a fuzz target does when an invariant breaks: say which, and abort, so
// that libFuzzer keeps the input as a crash.
#ifndef KSCDP_FUZZ_FUZZ_CHECK_H_
#define KSCDP_FUZZ_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                \
  do {                                                                                       \
    if (!(condition)) {                                                                      \
      std::fprintf(stderr, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                          \
    }                                                                                        \
  } while (false)

#endif  // KSCDP_FUZZ_FUZZ_CHECK_H_
