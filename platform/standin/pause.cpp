#include "platform/pause.h"

extern "C" int ks_nanosleep(const struct timespec* request, struct timespec* remaining) {
  return nanosleep(request, remaining);
}
