// The CPU cost of the engine's calls through the gateway, over the fake
// platform: one eviction pass and one alert.
#include <benchmark/benchmark.h>

#include "gateway_workload.h"

namespace {

const int kOperationsBetweenResets = 4096;

void timeOperation(benchmark::State& state, bench::GatewayWorkload::Operation operation) {
  bench::GatewayWorkload workload;
  int sinceReset = 0;
  for (auto _ : state) {
    if (!(workload.*operation)()) {
      state.SkipWithError("the operation did not reach the platform");
      break;
    }
    if (++sinceReset == kOperationsBetweenResets) {
      state.PauseTiming();
      workload.forgetRecords();
      sinceReset = 0;
      state.ResumeTiming();
    }
  }
}

void EvictionPass(benchmark::State& state) { timeOperation(state, &bench::GatewayWorkload::evictOnce); }
void Alert(benchmark::State& state) { timeOperation(state, &bench::GatewayWorkload::alertOnce); }

BENCHMARK(EvictionPass)->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(Alert)->Repetitions(3)->ReportAggregatesOnly(true);

}  // namespace
