// libcurl as the stand-ins use it: initialised once per process, with one
// share handle through which every easy handle shares connections, DNS
// answers and TLS sessions, so that a fresh handle per request still reuses
// the connection the previous request left open.
#ifndef KSCDP_PLATFORM_STANDIN_CURL_SUPPORT_H_
#define KSCDP_PLATFORM_STANDIN_CURL_SUPPORT_H_

#include <curl/curl.h>

#include <cstddef>
#include <memory>
#include <string>

#include "config_file.h"

namespace standin {

// Initialises libcurl on first use (thread-safe) and returns the
// process-wide share handle, or null when libcurl could not provide one (the
// easy handles then work unshared). The handle locks itself, but libcurl's
// documentation advises against using a shared connection cache from
// concurrent threads; the library's requests run on one thread at a time.
CURLSH* curlShare();

// An easy handle with libcurl's default options: one that an earlier user
// gave back, else a new one; null when libcurl cannot make one. Reusing a
// handle saves more than its allocation: libcurl keeps, per handle, the
// multi handle and wake-up socket pair that curl_easy_perform sets up, which
// cost more than an exchange over an open loopback connection.
CURL* takeEasyHandle();
// Resets `easy` (dropping every pointer it was given) and keeps it for a
// later takeEasyHandle(), or cleans it up when enough are kept already.
// Null is ignored.
void giveBackEasyHandle(CURL* easy);

// Seconds from the "http_timeout" setting when it is a positive whole
// number, else 30.
long httpTimeoutSeconds(const ConfigValues& values);

// A libcurl write callback appending to the std::string at `body`. Nothing
// may unwind through libcurl: a failed append returns a short count, which
// makes the transfer fail instead.
size_t appendToBody(char* data, size_t size, size_t count, void* body);

struct HeaderListRelease {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, HeaderListRelease>;

// Adds one "Name: value" line; false when memory ran out (`headers` intact).
bool appendHeader(HeaderList& headers, const std::string& line);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CURL_SUPPORT_H_
