// main() of a benchmark program whose benchmarks need a world set up first
// (stand-in files, a simulator, a broker).
#ifndef KSCDP_BENCH_BENCHMARK_PROGRAM_H_
#define KSCDP_BENCH_BENCHMARK_PROGRAM_H_

#include <functional>

namespace bench {

// Takes Google Benchmark's flags from the command line, then calls `run`,
// which sets the world up and calls benchmark::RunSpecifiedBenchmarks(). An
// exception from `run` is reported under `program` and makes the result 1.
int runBenchmarks(int argc, char** argv, const char* program, const std::function<void()>& run);

}  // namespace bench

#endif  // KSCDP_BENCH_BENCHMARK_PROGRAM_H_
