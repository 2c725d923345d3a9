// The C library's sleep, behind the platform seam so that tests can count
// pauses instead of waiting them out.
#ifndef KSCDP_PLATFORM_PAUSE_H_
#define KSCDP_PLATFORM_PAUSE_H_

#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

// Same contract as nanosleep(2).
int ks_nanosleep(const struct timespec* request, struct timespec* remaining);

#ifdef __cplusplus
}
#endif

#endif  // KSCDP_PLATFORM_PAUSE_H_
