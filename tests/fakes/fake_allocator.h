// Counting fake of the allocator pair, which can be told to fail a call.
#ifndef KSCDP_TESTS_FAKES_FAKE_ALLOCATOR_H_
#define KSCDP_TESTS_FAKES_FAKE_ALLOCATOR_H_

#include <string>
#include <vector>

namespace fake {

// Makes the nth cct_malloc call from now on (1 = the next one) return null.
// 0 lets every call succeed.
void failAllocationNumber(int n);
// The caller named by every cct_malloc call, and by every cct_free call that
// released a block.
const std::vector<std::string>& allocationCallers();
const std::vector<std::string>& releaseCallers();
// Blocks handed out by cct_malloc and not yet given back to cct_free.
int liveAllocations();
void resetAllocator();

}  // namespace fake

#endif  // KSCDP_TESTS_FAKES_FAKE_ALLOCATOR_H_
