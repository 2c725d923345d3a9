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
#ifndef KSCDP_PLATFORM_STANDIN_HTTP_CURL_SUPPORT_H_
#define KSCDP_PLATFORM_STANDIN_HTTP_CURL_SUPPORT_H_

#include <curl/curl.h>

#include <cstddef>
#include <memory>
#include <string>

#include "port/fork_hooks.h"

namespace standin {

// An easy handle: the one given back last, else a new one; null when libcurl
// cannot make one. Reusing a handle saves more than its allocation: libcurl
// keeps, per handle, its open connections and the multi handle and wake-up
// socket pair that curl_easy_perform sets up, which cost more than an
// exchange over an open loopback connection.
//
// Besides libcurl's defaults (a kept handle is reset to them, its open
// connections kept) a handle holds the options that every request of the
// stand-ins shares: the share handle, http and https only, no signals, TLS
// 1.2 at least, peer and host verified, connections opened close-on-exec,
// and the answer's body appended to the AnswerBody that CURLOPT_WRITEDATA
// names. Every other option a request sets it sets each time, as a previous
// request may have set it otherwise. Each handle has a multi handle of its
// own, which keeps its open connections and whose descriptors are
// close-on-exec too: a handle's transfers run through performTransfer(),
// never curl_easy_perform(), and its private pointer is not the caller's.
CURL* takeEasyHandle();
// Runs the transfer `easy` (from takeEasyHandle()) is set up for, as
// curl_easy_perform() would: blocks until it ends; its result.
CURLcode performTransfer(CURL* easy);
// The CA bundle libcurl verifies peers with when a request names none, as
// libcurl was built; null when it was built without one. A pooled handle may
// have been given another bundle, and setting CURLOPT_CAINFO to null would
// drop the built-in one rather than restore it.
const char* builtInCaBundle();
// The CA directory libcurl verifies peers with besides the bundle, as
// libcurl was built; null when it was built without one.
const char* builtInCaPath();
// Drops the pointers a request gave `easy` (error buffer, header list, write
// target, request body) and keeps it, open connections included, for a
// later takeEasyHandle(), or cleans it up when enough are kept already. Null
// is ignored.
void giveBackEasyHandle(CURL* easy);
// Cleans up `easy` (from takeEasyHandle()) and its multi handle.
void cleanUp(CURL* easy);

// The largest answer a stand-in reads. The jobs interface and the request
// daemon answer a few hundred bytes; a peer that sends more than this is not
// one of them, and reading on would only fill the engine's memory.
const size_t kLargestAnswer = 1024 * 1024;

// Where a request's answer goes: its body, and whether it was cut off for
// passing kLargestAnswer.
struct AnswerBody {
  std::string text;
  bool tooLarge = false;
};

// A libcurl write callback appending to the AnswerBody at `answer`. Nothing
// may unwind through libcurl: an append that fails or would pass
// kLargestAnswer returns a short count, which makes the transfer fail and
// libcurl close its connection.
size_t appendToBody(char* data, size_t size, size_t count, void* answer);

struct HeaderListRelease {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, HeaderListRelease>;

// Around fork(): libcurl's shared data is not being changed while the
// process is copied; the child lets go of the parent's connections.
extern const port::ForkHooks kCurlForkHooks;

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_HTTP_CURL_SUPPORT_H_
