// The request-daemon client over HTTP: each request is one POST of the
// request text to <ksqd_url>/ksqd/<kind>.
//
// Results: 0 with a malloc'ed copy of a 2xx body as the answer; for any other
// status the daemon's X-Ksqd-Status (when present and non-zero) or else the
// HTTP status; the negated libcurl error when no answer came at all; EINVAL for
// unusable arguments and ENOMEM when memory ran out. Only a 0 result touches
// the caller's answer pointer.
#include <curl/curl.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "config_file.h"
#include "curl_support.h"
#include "ksqd_url.h"
#include "platform/ksqd_client.h"
#include "platform/ksu_log.h"

namespace {

const char kFunction[] = "invoke_ksqd_cct_request";

// An easy handle from the stand-ins' pool, given back when the request ends.
struct CurlEasyDeleter {
  void operator()(CURL* easy) const { standin::giveBackEasyHandle(easy); }
};
using CurlEasy = std::unique_ptr<CURL, CurlEasyDeleter>;

void addHeader(standin::HeaderList& list, const std::string& header) {
  if (!standin::appendHeader(list, header)) throw std::bad_alloc();
}

// The daemon's own failure code from X-Ksqd-Status, or 0 when it gives none
// or gives something that is not an int.
int ksqdStatus(CURL* easy) {
  curl_header* header = nullptr;
  if (curl_easy_header(easy, "X-Ksqd-Status", 0, CURLH_HEADER, -1, &header) != CURLHE_OK) return 0;
  char* end = nullptr;
  errno = 0;
  const long status = std::strtol(header->value, &end, 10);
  if (errno != 0 || end == header->value || *end != '\0' || status < INT_MIN || status > INT_MAX) return 0;
  return static_cast<int>(status);
}

int transportFailure(const std::string& url, CURLcode code, const char* detail) {
  ksu_logmsg_str(16, kFunction,
                 "POST " + url + " failed: " + (*detail != '\0' ? detail : curl_easy_strerror(code)) +
                     " (libcurl error " + std::to_string(code) + ")");
  return -static_cast<int>(code);
}

int submit(const std::string& masterServer, int kind, const char* request, char** answer) {
  // A missing or unreadable file leaves every stand-in setting at its default.
  standin::ConfigValues config;
  standin::readConfigFile(config);
  const std::string url = standin::ksqdRequestUrl(config, masterServer, kind);
  const std::string caFile = standin::setting(config, "ca_file", "");

  CURLSH* share = standin::curlShare();  // also initialises libcurl
  const CurlEasy easy(standin::takeEasyHandle());
  if (easy == nullptr) return transportFailure(url, CURLE_FAILED_INIT, "");

  standin::HeaderList headers;
  addHeader(headers, "Content-Type: application/json");
  // "Name;" is libcurl's way of sending a header with an empty value.
  addHeader(headers, masterServer.empty() ? "X-Keepstone-Master;" : "X-Keepstone-Master: " + masterServer);
  addHeader(headers, "Expect:");

  std::string body;
  char detail[CURL_ERROR_SIZE] = "";
  CURL* handle = easy.get();
  if (share != nullptr) curl_easy_setopt(handle, CURLOPT_SHARE, share);
  curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle, CURLOPT_POST, 1L);
  curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request);
  curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(std::strlen(request)));
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, standin::appendToBody);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, detail);
  curl_easy_setopt(handle, CURLOPT_TIMEOUT, standin::httpTimeoutSeconds(config));
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  if (!caFile.empty()) curl_easy_setopt(handle, CURLOPT_CAINFO, caFile.c_str());

  const CURLcode sent = curl_easy_perform(handle);
  if (sent != CURLE_OK) return transportFailure(url, sent, detail);

  long status = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  if (status < 200 || status > 299) {
    const int daemonStatus = ksqdStatus(handle);
    return daemonStatus != 0 ? daemonStatus : static_cast<int>(status);
  }
  auto* copy = static_cast<char*>(std::malloc(body.size() + 1));
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, body.c_str(), body.size() + 1);
  *answer = copy;
  return 0;
}

}  // namespace

extern "C" int invoke_ksqd_cct_request(const char* master_server, int kind, const char* request,
                                       char** answer) {
  try {
    if (master_server == nullptr || request == nullptr || answer == nullptr) {
      ksu_logmsg_str(16, kFunction, "Refused: the master server, the request and the answer pointer must not be null");
      return EINVAL;
    }
    if (std::strpbrk(master_server, "\r\n") != nullptr) {
      ksu_logmsg_str(16, kFunction, "Refused: the master server name holds a line break");
      return EINVAL;
    }
    return submit(master_server, kind, request, answer);
  } catch (...) {
    // Only memory can run out here; nothing is left allocated.
    return ENOMEM;
  }
}
