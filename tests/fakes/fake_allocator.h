// Counting fake of the allocator pair, which can be told to fail a call.
#ifndef KSCDP_TESTS_FAKES_FAKE_ALLOCATOR_H_
#define KSCDP_TESTS_FAKES_FAKE_ALLOCATOR_H_

#include <string>
#include <vector>

namespace fake {

struct Allocator {
  // Counts cct_malloc calls down: the call that brings it to 0 returns null
  // (1 = the next one); 0 lets every call succeed.
  int failAt = 0;
  std::vector<std::string> callers;   // named by every cct_malloc call
  std::vector<std::string> releases;  // named by every cct_free call that released a block
  int live = 0;                       // blocks handed out and not yet given back
};

inline Allocator allocator;

}  // namespace fake

#endif  // KSCDP_TESTS_FAKES_FAKE_ALLOCATOR_H_
