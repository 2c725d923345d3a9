// Scriptable fake of the HTTP client library: each KSClientCURL records its
// constructor arguments and requests, and each get/post takes the next
// scripted answer.
#ifndef KSCDP_TESTS_FAKES_FAKE_CURL_CLIENT_H_
#define KSCDP_TESTS_FAKES_FAKE_CURL_CLIENT_H_

#include <deque>
#include <exception>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/ks_curl_client.h"

namespace fake {

struct CurlAnswer {
  long code = 200;
  std::string body;
  // Found by getHttpHeaderField, names compared case-insensitively.
  std::map<std::string, std::string> headers;
  // When set, getHttpHeaderField returns this and leaves its value alone.
  std::optional<int> headerLookupResult;
};

// One client, and what was done with it.
struct CurlClientRecord {
  // The nineteen constructor arguments in order, joined by "|": bools as 1
  // and 0, the token manager as 1 when there is one.
  std::string arguments;
  std::vector<std::string> acceptMediaTypes;  // every setupAcceptCurlOption call
  std::vector<std::string> requests;          // "get <path>" or "post <path> <body>"
};

struct Curl {
  // What the next clients do. With no answer queued a request gets code 0
  // and an empty body, as when nothing answers.
  std::deque<CurlAnswer> answers;
  std::exception_ptr constructorThrows;  // thrown by every constructor while set
  std::exception_ptr requestThrows;      // thrown by every get/post while set

  std::vector<CurlClientRecord> clients;  // every client constructed, in order
  int live = 0;                           // constructed and not yet destroyed
};

inline Curl curl;

}  // namespace fake

#endif  // KSCDP_TESTS_FAKES_FAKE_CURL_CLIENT_H_
