// KSClientCURL over libcurl. Requests go to `rest_url` from the master
// configuration file as it stands when the client is made, or to
// https://<host>:<port>, followed by "/" and the request path. The only header the client adds is the Accept media type
// (and Content-Type on a POST); a failed exchange is code 0, an empty body
// and one level-16 log line, never an exception.
#include <curl/curl.h>

#include <memory>
#include <string>

#include "platform/ks_curl_client.h"
#include "platform/ksu_log.h"
#include "platform/standin/config/service_url.h"
#include "platform/standin/config/url_credentials.h"
#include "platform/standin/counters/metrics.h"
#include "platform/standin/http/curl_exchange.h"
#include "platform/standin/http/http_settings.h"

namespace {

const int kHeaderFound = 0;
const int kHeaderAbsent = 227;

}  // namespace

struct KSClientCURL::State {
  std::string baseUrl;     // no trailing slash added or removed
  std::string urlProblem;  // why `rest_url` cannot be used; empty when it can
  standin::CurlSettings settings;
  // "Accept:" without a value stops libcurl from sending its own "*/*".
  std::string acceptHeader = "Accept:";
  // The last exchange; kept for the headers of its answer.
  std::unique_ptr<standin::CurlExchange> last;

  // One exchange; fills `code` and `body` (0 and empty without an answer).
  // A POST of `payload` when given, else a GET. The libcurl result.
  CURLcode exchange(const std::string& path, const std::string* payload, long& code, std::string& body);
};

CURLcode KSClientCURL::State::exchange(const std::string& path, const std::string* payload, long& code,
                                       std::string& body) {
  const char* function = payload != nullptr ? "KSClientCURL::post" : "KSClientCURL::get";
  code = 0;
  body.clear();
  last.reset();  // its handle goes back to the pool, for the next exchange to take
  if (!urlProblem.empty()) {
    ksu_logmsg_str(FAILURE_LEVEL, function, urlProblem);
    return CURLE_UNSUPPORTED_PROTOCOL;
  }
  last.reset(new standin::CurlExchange);
  // "Expect:" stops libcurl from holding a large POST back for a 100-continue.
  bool headersReady = last->addHeader(acceptHeader);
  if (payload != nullptr) {
    headersReady = headersReady && last->addHeader("Content-Type: application/json") && last->addHeader("Expect:");
  }
  if (!headersReady) {
    ksu_logmsg_str(FAILURE_LEVEL, function,
                   "No memory for the headers of a request to " + standin::urlWithoutPassword(baseUrl + "/" + path));
    return CURLE_OUT_OF_MEMORY;
  }
  const CURLcode result = last->perform(function, baseUrl + "/" + path, payload, settings);
  standin::metrics::httpExchange(standin::metrics::HttpService::kJobs, last->responseCode(), last->took());
  if (result != CURLE_OK) return result;
  code = last->responseCode();
  body.swap(last->body());
  return result;
}

KSClientCURL::KSClientCURL(const std::string& host, int port, cert_type, KSCurlSessionType, TokenManager_Base*,
                           const std::string&, bool, bool, bool, const std::string&, const std::string&,
                           const std::string&, const std::string&, const std::string&, const std::string&, bool,
                           const bool&, const std::string&, int)
    : m_responseCode(0), m_state(nullptr) {
  std::unique_ptr<State> state(new State);
  standin::HttpSettings settings = standin::httpSettings(*standin::currentConfig());
  standin::serviceBaseUrl("rest_url", settings.restUrl, "https://" + standin::hostAndPort(host, port), state->baseUrl,
                          state->urlProblem);
  state->settings = std::move(settings.curl);
  m_state = state.release();
}

KSClientCURL::~KSClientCURL() { delete m_state; }

void KSClientCURL::setupAcceptCurlOption(std::string mediaType) {
  m_state->acceptHeader = mediaType.empty() ? "Accept:" : "Accept: " + mediaType;
}

int KSClientCURL::get(const std::string& path) {
  return m_state->exchange(path, nullptr, m_responseCode, m_responseBody);
}

int KSClientCURL::post(const std::string& path, const std::string& body) {
  return m_state->exchange(path, &body, m_responseCode, m_responseBody);
}

int KSClientCURL::getHttpHeaderField(const std::string& name, std::string& value) {
  return m_state->last != nullptr && m_state->last->header(name.c_str(), value) ? kHeaderFound : kHeaderAbsent;
}
