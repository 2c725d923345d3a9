#include "fake_pause.h"

namespace fake {
namespace {
std::vector<timespec> g_pauses;
}  // namespace

const std::vector<timespec>& pauses() { return g_pauses; }
void resetPauses() { g_pauses.clear(); }

}  // namespace fake

// What the library's objects call instead of nanosleep (see fake_pause.h).
extern "C" int __wrap_nanosleep(const struct timespec* request, struct timespec* /*remaining*/) {
  if (request != nullptr) fake::g_pauses.push_back(*request);
  return 0;
}
