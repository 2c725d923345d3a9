// KSClientCURL over libcurl. Requests go to `rest_url` from the master
// configuration file, or to https://<host>:<port>, followed by "/" and the
// request path. The only header the client adds is the Accept media type
// (and Content-Type on a POST); a failed exchange is code 0, an empty body
// and one level-16 log line, never an exception.
#include <curl/curl.h>

#include <memory>
#include <string>

#include "config_file.h"
#include "curl_support.h"
#include "platform/ks_curl_client.h"
#include "platform/ksu_log.h"

namespace {

const long kDefaultTimeoutSeconds = 30;
const int kHeaderFound = 0;
const int kHeaderAbsent = 227;

std::string defaultBaseUrl(const std::string& host, int port) {
  const bool bareIpv6 = host.find(':') != std::string::npos && host[0] != '[';
  return "https://" + (bareIpv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

}  // namespace

struct KSClientCURL::State {
  std::string baseUrl;     // no trailing slash added or removed
  std::string caFile;      // empty: the system's CA bundle
  long timeoutSeconds = kDefaultTimeoutSeconds;
  std::string accept;      // empty: no Accept header at all
  CURL* easy = nullptr;    // owned until given back; kept after an exchange for its headers
  bool answered = false;   // the last exchange got a response
  // What `easy` points to; kept as long as it, so that it never dangles.
  standin::HeaderList headers;
  char error[CURL_ERROR_SIZE] = "";

  // One exchange; fills `code` and `body` (0 and empty without an answer).
  // A POST of `payload` when given, else a GET.
  CURLcode exchange(const std::string& path, const std::string* payload, long& code, std::string& body);
};

CURLcode KSClientCURL::State::exchange(const std::string& path, const std::string* payload,
                                       long& code, std::string& body) {
  const std::string url = baseUrl + "/" + path;
  answered = false;
  code = 0;
  body.clear();

  CURLcode result = CURLE_OUT_OF_MEMORY;
  error[0] = '\0';
  CURLSH* share = standin::curlShare();
  if (easy == nullptr) {
    easy = standin::takeEasyHandle();
  } else {
    curl_easy_reset(easy);
  }
  headers.reset();
  // "Accept:" without a value stops libcurl from sending its own "*/*";
  // "Expect:" stops it from holding a large POST back for a 100-continue.
  const std::string acceptLine = "Accept:" + (accept.empty() ? "" : " " + accept);
  bool headersReady = standin::appendHeader(headers, acceptLine.c_str());
  if (payload != nullptr) {
    headersReady = headersReady && standin::appendHeader(headers, "Content-Type: application/json") &&
                   standin::appendHeader(headers, "Expect:");
  }

  if (easy != nullptr && headersReady) {
    if (share != nullptr) curl_easy_setopt(easy, CURLOPT_SHARE, share);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT, timeoutSeconds);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!caFile.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, caFile.c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &standin::appendToBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
    if (payload != nullptr) {
      curl_easy_setopt(easy, CURLOPT_POST, 1L);
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(payload->size()));
      curl_easy_setopt(easy, CURLOPT_COPYPOSTFIELDS, payload->data());
    } else {
      curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    }
    result = curl_easy_perform(easy);
  }

  if (result == CURLE_OK) {
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &code);
    answered = true;
    return result;
  }
  body.clear();
  const std::string reason = error[0] != '\0' ? error : curl_easy_strerror(result);
  const bool isPost = payload != nullptr;
  ksu_logmsg_str(16, isPost ? "KSClientCURL::post" : "KSClientCURL::get",
                 std::string(isPost ? "POST " : "GET ") + url + " failed: " + reason);
  return result;
}

KSClientCURL::KSClientCURL(const std::string& host, int port, cert_type, KSCurlSessionType,
                           TokenManager_Base*, const std::string&, bool, bool, bool,
                           const std::string&, const std::string&, const std::string&,
                           const std::string&, const std::string&, const std::string&, bool,
                           const bool&, const std::string&, int)
    : m_responseCode(0), m_state(nullptr) {
  std::unique_ptr<State> state(new State);
  // A missing or unreadable file leaves every setting at its default.
  standin::ConfigValues config;
  standin::readConfigFile(config);
  state->baseUrl = standin::setting(config, "rest_url", defaultBaseUrl(host, port));
  state->caFile = standin::setting(config, "ca_file", "");
  state->timeoutSeconds = standin::httpTimeoutSeconds(config);
  m_state = state.release();
}

KSClientCURL::~KSClientCURL() {
  standin::giveBackEasyHandle(m_state->easy);
  delete m_state;
}

void KSClientCURL::setupAcceptCurlOption(std::string mediaType) { m_state->accept = std::move(mediaType); }

int KSClientCURL::get(const std::string& path) {
  return m_state->exchange(path, nullptr, m_responseCode, m_responseBody);
}

int KSClientCURL::post(const std::string& path, const std::string& body) {
  return m_state->exchange(path, &body, m_responseCode, m_responseBody);
}

int KSClientCURL::getHttpHeaderField(const std::string& name, std::string& value) {
  curl_header* header = nullptr;
  if (!m_state->answered ||
      curl_easy_header(m_state->easy, name.c_str(), 0, CURLH_HEADER, -1, &header) != CURLHE_OK) {
    return kHeaderAbsent;
  }
  value = header->value;
  return kHeaderFound;
}
