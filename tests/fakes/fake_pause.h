// Fake of the C library's sleep: records each pause and returns at once.
#ifndef KSCDP_TESTS_FAKES_FAKE_PAUSE_H_
#define KSCDP_TESTS_FAKES_FAKE_PAUSE_H_

#include <ctime>
#include <vector>

namespace fake {

const std::vector<timespec>& pauses();
void resetPauses();

}  // namespace fake

#endif  // KSCDP_TESTS_FAKES_FAKE_PAUSE_H_
