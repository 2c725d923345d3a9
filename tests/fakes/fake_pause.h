// Fake of the C library's sleep for the library's own code: programs that
// link the fakes link with --wrap=nanosleep, so that the library's calls of
// nanosleep are recorded and return at once. Calls from elsewhere (the C++
// runtime, test frameworks) still sleep.
#ifndef KSCDP_TESTS_FAKES_FAKE_PAUSE_H_
#define KSCDP_TESTS_FAKES_FAKE_PAUSE_H_

#include <ctime>
#include <vector>

namespace fake {

inline std::vector<timespec> pauses;  // every pause asked for

}  // namespace fake

#endif  // KSCDP_TESTS_FAKES_FAKE_PAUSE_H_
