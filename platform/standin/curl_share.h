// libcurl as the stand-ins use it: initialised once per process, with one
// share handle through which every easy handle shares connections, DNS
// answers and TLS sessions, so that a fresh handle per request still reuses
// the connection the previous request left open.
#ifndef KSCDP_PLATFORM_STANDIN_CURL_SHARE_H_
#define KSCDP_PLATFORM_STANDIN_CURL_SHARE_H_

#include <curl/curl.h>

namespace standin {

// Initialises libcurl on first use (thread-safe) and returns the
// process-wide share handle, or null when libcurl could not provide one (the
// easy handles then work unshared). The handle locks itself, but libcurl's
// documentation advises against using a shared connection cache from
// concurrent threads; the library's requests run on one thread at a time.
CURLSH* curlShare();

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CURL_SHARE_H_
