#include <kscdp/release_string.h>

// KSCDP_VERSION comes from the build (the project version).
extern "C" const char KS_STATIC_RELEASE_STR[] = "\n@(#) Keepstone_" KSCDP_VERSION;
