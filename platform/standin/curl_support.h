// libcurl as the stand-ins use it: initialised once per process, easy
// handles kept in a process-wide pool, and one share handle for DNS answers
// and TLS sessions.
//
// Several threads may make requests at once; each request has an easy handle
// of its own for as long as it runs. Connections are not shared between
// handles: libcurl 7.88 documents a connection cache shared between
// concurrent threads as unsafe. Each pooled handle keeps its own open
// connections instead, so a thread that polls request after request through
// fresh clients takes back the handle it gave back last and reuses its
// connection; with several threads at once each pooled handle holds its own.
#ifndef KSCDP_PLATFORM_STANDIN_CURL_SUPPORT_H_
#define KSCDP_PLATFORM_STANDIN_CURL_SUPPORT_H_

#include <curl/curl.h>

#include <cstddef>
#include <memory>
#include <string>

namespace standin {

// An easy handle: the one given back last, else a new one; null when libcurl
// cannot make one. Reusing a handle saves more than its allocation: libcurl
// keeps, per handle, its open connections and the multi handle and wake-up
// socket pair that curl_easy_perform sets up, which cost more than an
// exchange over an open loopback connection.
//
// Besides libcurl's defaults a handle holds, from its making on, the options
// that every request of the stand-ins shares: the share handle, http and
// https only, no signals, peer and host verified, and the answer's body
// appended to the std::string that CURLOPT_WRITEDATA names. Every other
// option a request sets it sets each time, as a previous request may have
// set it otherwise.
CURL* takeEasyHandle();
// Drops the pointers a request gave `easy` (error buffer, header list, write
// target, request body) and keeps it, open connections included, for a
// later takeEasyHandle(), or cleans it up when enough are kept already. Null
// is ignored.
void giveBackEasyHandle(CURL* easy);

// A libcurl write callback appending to the std::string at `body`. Nothing
// may unwind through libcurl: a failed append returns a short count, which
// makes the transfer fail instead.
size_t appendToBody(char* data, size_t size, size_t count, void* body);

struct HeaderListRelease {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, HeaderListRelease>;

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CURL_SUPPORT_H_
