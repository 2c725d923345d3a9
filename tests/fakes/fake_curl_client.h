// Scriptable fake of the HTTP client library: each KSClientCURL records its
// constructor arguments and calls, and each get/post takes the next scripted
// answer.
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

// What the next clients do. With no answer queued a request gets code 0 and
// an empty body, as when nothing answers.
struct CurlScript {
  std::deque<CurlAnswer> answers;
  std::exception_ptr constructorThrows;  // thrown by every constructor while set
  std::exception_ptr requestThrows;      // thrown by every get/post while set
};

// The constructor arguments of one client, and what was done with it.
struct CurlClientRecord {
  std::string host;
  int port;
  cert_type certType;
  KSCurlSessionType sessionType;
  TokenManager_Base* tokenManager;
  // The other fourteen, in order, joined by "|"; bools as 1 and 0.
  std::string otherArguments;
  std::vector<std::string> acceptMediaTypes;  // every setupAcceptCurlOption call
};

struct CurlCall {
  size_t client;       // index into curlClients()
  std::string method;  // "get" or "post"
  std::string path;
  std::string body;    // post only
};

CurlScript& curlScript();
const std::vector<CurlClientRecord>& curlClients();
const std::vector<CurlCall>& curlCalls();
int liveCurlClients();  // constructed and not yet destroyed
void resetCurlClient();

}  // namespace fake

#endif  // KSCDP_TESTS_FAKES_FAKE_CURL_CLIENT_H_
