#include "fake_pause.h"

// What the library's objects call instead of nanosleep (see fake_pause.h).
extern "C" int __wrap_nanosleep(const struct timespec* request, struct timespec* /*remaining*/) {
  if (request != nullptr) fake::pauses.push_back(*request);
  return 0;
}
