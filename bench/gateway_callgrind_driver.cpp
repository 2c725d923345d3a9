// Runs a gateway operation N times for callgrind, which counts only what runs
// inside measuredOperations:
//
//   valgrind --tool=callgrind --toggle-collect='*measuredOperations*'
//            kscdp_gateway_callgrind_driver evict|alert N
//
// so the instructions it totals, divided by N, are those of one operation.
// One unmeasured operation first takes the one-time set-up out of the count.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "gateway_workload.h"

// Outside any namespace and never inlined, so that callgrind finds it by name.
__attribute__((noinline)) bool measuredOperations(bench::GatewayWorkload& workload,
                                                  bench::GatewayWorkload::Operation operation, int count) {
  bool reached = true;
  for (int i = 0; i < count; ++i) reached = (workload.*operation)() && reached;
  return reached;
}

int main(int argc, char** argv) {
  const int kBatch = 1000;  // operations between two resets of the fake platform's records
  const int count = argc == 3 ? std::atoi(argv[2]) : 0;
  bench::GatewayWorkload::Operation operation = nullptr;
  if (argc == 3 && std::strcmp(argv[1], "evict") == 0) operation = &bench::GatewayWorkload::evictOnce;
  if (argc == 3 && std::strcmp(argv[1], "alert") == 0) operation = &bench::GatewayWorkload::alertOnce;
  if (operation == nullptr || count <= 0) {
    std::fprintf(stderr, "usage: %s evict|alert COUNT\n", argv[0]);
    return 2;
  }

  bench::GatewayWorkload workload;
  bool reached = (workload.*operation)();
  for (int done = 0; done < count; done += kBatch) {
    workload.forgetRecords();
    reached = measuredOperations(workload, operation, done + kBatch <= count ? kBatch : count - done) && reached;
  }
  if (!reached) {
    std::fprintf(stderr, "%s: an operation did not reach the platform\n", argv[0]);
    return 1;
  }
  return 0;
}
