// libcurl's process-wide set-up, shared by every stand-in that uses libcurl.
#ifndef KSCDP_PLATFORM_STANDIN_CURL_GLOBAL_H_
#define KSCDP_PLATFORM_STANDIN_CURL_GLOBAL_H_

#include <curl/curl.h>

namespace standin {

// Runs curl_global_init exactly once per process, also when called from
// several threads at once, and returns its result (the same on every call).
// Call it before any other libcurl function. It is never undone: the
// stand-ins may be in use until the process ends.
CURLcode ensureCurlGlobalInit();

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CURL_GLOBAL_H_
