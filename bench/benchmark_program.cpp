#include "benchmark_program.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <exception>

namespace bench {

int runBenchmarks(int argc, char** argv, const char* program, const std::function<void()>& run) {
  benchmark::Initialize(&argc, argv);
  try {
    run();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", program, e.what());
    return 1;
  }
  benchmark::Shutdown();
  return 0;
}

}  // namespace bench
