// Scripts the fake platform from fuzzer bytes. Every failure the fakes can
// inject is within reach (failed allocations, unreadable configuration,
// missing master server or host name, failing or odd daemon answers, HTTP
// codes, bodies and headers, throwing HTTP and notification calls), and so
// are answers that look right, so that the happy paths are fuzzed too.
#ifndef KSCDP_FUZZ_FAULT_SCRIPT_H_
#define KSCDP_FUZZ_FAULT_SCRIPT_H_

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>

namespace fuzz {

// Replaces the script of every fake with one read from `input`.
void scriptPlatform(FuzzedDataProvider& input);

// Arms the allocator fake to fail one of the next cct_malloc calls, or none.
void scriptAllocationFailure(FuzzedDataProvider& input);

// True when the allocation failure armed last happened after the first
// `allocationCalls` cct_malloc calls (counted as fake::allocator.callers does).
bool allocationFailedSince(size_t allocationCalls);

}  // namespace fuzz

#endif  // KSCDP_FUZZ_FAULT_SCRIPT_H_
