// Request-daemon client library of the product, with its allocator pair.
#ifndef KSCDP_PLATFORM_KSQD_CLIENT_H_
#define KSCDP_PLATFORM_KSQD_CLIENT_H_

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Submits one request of `kind` with the text `request` to the request daemon
// of `master_server`. Returns 0 on success and sets *answer to a
// NUL-terminated text from malloc that the caller frees. Any other result is a
// failure code; *answer is then left as the caller set it. A failure code from
// 200 to 299 is the daemon's own success status for a request whose answer
// could not be handed back: the daemon accepted the request, and the job it
// started, if any, is unknown to the caller.
int invoke_ksqd_cct_request(const char* master_server, int kind, const char* request, char** answer);

// Allocation with bookkeeping: `caller` and `line` name the place of the call.
// Returns null when memory cannot be had.
void* cct_malloc(const char* caller, size_t size, int line);

// Releases *pointer (which may be null) and sets it to null.
void cct_free(const char* caller, void** pointer, int line);

#ifdef __cplusplus
}
#endif

#endif  // KSCDP_PLATFORM_KSQD_CLIENT_H_
