// The request-daemon client over HTTP: each request is one POST of the
// request text to <ksqd_url>/ksqd/<kind>.
//
// Results: 0 with a malloc'ed copy of a 2xx body as the answer; the 2xx
// status itself when the body cannot be handed back (larger than
// kLargestAnswer, or no memory for its copy), since the daemon accepted the
// request and a job may have started; for any other status the daemon's
// X-Ksqd-Status (when present, non-zero and outside 200-299, the range that
// says accepted) or else the HTTP status, so that a refusal never reads as
// an acceptance; the
// negated libcurl error when no answer came at all (-1, an unsupported
// protocol, when "ksqd_url" is not http or https); EINVAL for unusable
// arguments and ENOMEM when memory ran out before the request went out. Only
// a 0 result touches the caller's answer pointer.
//
// A request is sent at most once: on a connection of its own, since libcurl
// would send it again on a new one when a kept-alive connection turned out
// dead after taking it, and the daemon would start the same backup twice.
#include "platform/ksqd_client.h"

#include <curl/curl.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "platform/ksu_log.h"
#include "platform/standin/config/config_file.h"
#include "platform/standin/config/ksqd_url.h"
#include "platform/standin/counters/metrics.h"
#include "platform/standin/http/curl_exchange.h"
#include "platform/standin/http/http_settings.h"

namespace {

const char kFunction[] = "invoke_ksqd_cct_request";
const int kManualBackupKind = 1;

void addHeader(standin::CurlExchange& exchange, const std::string& header) {
  if (!exchange.addHeader(header)) throw std::bad_alloc();
}

// A result in this range says that the daemon accepted the request.
bool acceptance(long status) { return status >= 200 && status <= 299; }

// The daemon's own failure code from X-Ksqd-Status, or 0 when it gives none
// or gives something that is not an int.
int ksqdStatus(const standin::CurlExchange& exchange) {
  std::string value;
  if (!exchange.header("X-Ksqd-Status", value)) return 0;
  char* end = nullptr;
  errno = 0;
  const long status = std::strtol(value.c_str(), &end, 10);
  if (errno != 0 || end == value.c_str() || *end != '\0' || status < INT_MIN || status > INT_MAX) return 0;
  return static_cast<int>(status);
}

int submit(const std::string& masterServer, int kind, const char* request, char** answer) {
  // A missing or unreadable file leaves every stand-in setting at its default.
  const std::shared_ptr<const standin::ConfigSnapshot> config = standin::currentConfig();
  std::string url;
  std::string problem;
  if (!standin::ksqdRequestUrl(config->values, masterServer, kind, url, problem)) {
    ksu_logmsg_str(FAILURE_LEVEL, kFunction, problem);
    return -static_cast<int>(CURLE_UNSUPPORTED_PROTOCOL);
  }
  const standin::CurlSettings settings = standin::httpSettings(*config).curl;

  standin::CurlExchange exchange;
  addHeader(exchange, "Content-Type: application/json");
  // "Name;" is libcurl's way of sending a header with an empty value.
  addHeader(exchange, masterServer.empty() ? "X-Keepstone-Master;" : "X-Keepstone-Master: " + masterServer);
  addHeader(exchange, "Expect:");

  const std::string body(request);
  const CURLcode sent = exchange.perform(kFunction, url, &body, settings);
  const long status = exchange.responseCode();
  const bool accepted = acceptance(status);
  standin::metrics::httpExchange(standin::metrics::HttpService::kDaemon, status, exchange.took());
  if (sent != CURLE_OK) {
    // A 2xx answer cut off for its size still says the daemon accepted.
    return accepted && exchange.answerTooLarge() ? static_cast<int>(status) : -static_cast<int>(sent);
  }

  // A manual backup the daemon answered 2xx for is one VM's eviction requested.
  if (accepted && kind == kManualBackupKind) standin::metrics::evictionRequested();
  if (!accepted) {
    const int daemonStatus = ksqdStatus(exchange);
    return daemonStatus != 0 && !acceptance(daemonStatus) ? daemonStatus : static_cast<int>(status);
  }
  const std::string& answerText = exchange.body();
  auto* copy = static_cast<char*>(std::malloc(answerText.size() + 1));
  if (copy == nullptr) return static_cast<int>(status);
  std::memcpy(copy, answerText.c_str(), answerText.size() + 1);
  *answer = copy;
  return 0;
}

}  // namespace

extern "C" int invoke_ksqd_cct_request(const char* master_server, int kind, const char* request, char** answer) {
  try {
    if (master_server == nullptr || request == nullptr || answer == nullptr) {
      ksu_logmsg_str(FAILURE_LEVEL, kFunction,
                     "Refused: the master server, the request and the answer pointer must not be null");
      return EINVAL;
    }
    if (std::strpbrk(master_server, "\r\n") != nullptr) {
      ksu_logmsg_str(FAILURE_LEVEL, kFunction, "Refused: the master server name holds a line break");
      return EINVAL;
    }
    return submit(master_server, kind, request, answer);
  } catch (...) {
    // Only memory can run out here; nothing is left allocated.
    return ENOMEM;
  }
}
