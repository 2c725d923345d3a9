/* The release identification of libkscdp.so, a what-string:
 * "\n@(#) Keepstone_" followed by the release number. */
#ifndef KSCDP_RELEASE_STRING_H_
#define KSCDP_RELEASE_STRING_H_

#include "kscdp_export.h"

#ifdef __cplusplus
extern "C" {
#endif

KSCDP_EXPORT extern const char KS_STATIC_RELEASE_STR[];

#ifdef __cplusplus
}
#endif

#endif /* KSCDP_RELEASE_STRING_H_ */
