// The REST jobs interface, asked as the library asks it: the same base URL
// rule, the same media type, peer and host verified against ca_file.
#include <curl/curl.h>
#include <jansson.h>

#include <memory>

#include "checks.h"
#include "platform/standin/curl_support.h"
#include "platform/standin/service_url.h"
#include "url_parts.h"

namespace doctor {
namespace {

const char kId[] = "rest";
const char kTitle[] = "REST jobs interface";
const char kMediaType[] = "application/vnd.keepstone+json;version=6.0";
// Job ids count up from 1; a GET of job 0 only ever finds nothing.
const char kJobsPath[] = "/keepstone/admin/jobs/0";
const long kConnectMilliseconds = 2000;
const long kExchangeMilliseconds = 3000;

struct EasyRelease {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};

// The library's rule: "rest_url" when present, else https://<master>:1556.
const int kRestPort = 1556;

bool isJsonDocument(const std::string& body) {
  json_t* document = json_loadb(body.data(), body.size(), 0, nullptr);
  const bool parsed = document != nullptr;
  json_decref(document);
  return parsed;
}

std::string transportAction(CURLcode result, const UrlParts& where, bool connected) {
  const std::string address = where.host + ":" + std::to_string(where.port);
  switch (result) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return "correct the host of rest_url, or make " + where.host + " known to DNS or /etc/hosts";
    case CURLE_COULDNT_CONNECT: return "start the master's web service, or set rest_url to where it listens";
    case CURLE_OPERATION_TIMEDOUT:
      if (connected) return "check that " + address + " is the master's web service, and look at its log";
      return "let this host reach " + address + " through the firewalls between them";
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CONNECT_ERROR:
      return "set ca_file to the CA bundle that signed the master's certificate, and check that the "
             "certificate names " +
             where.host;
    default: return "check rest_url and that the master's web service runs at " + address;
  }
}

}  // namespace

CheckResult checkRestInterface(const Configuration& configuration, bool masterResolves) {
  if (!configuration.namesMaster()) return skippedResult(kId, kTitle, kNoMasterReason);
  std::string base;
  std::string problem;
  if (!standin::serviceBaseUrl(configuration.values, "rest_url",
                               "https://" + standin::hostAndPort(configuration.master(), kRestPort), base, problem)) {
    return failedResult(kId, kTitle, problem,
                        "set rest_url in " + configuration.path + " to the base URL of the master's REST interface");
  }
  const std::string url = base + kJobsPath;
  UrlParts where;
  if (!splitUrl(url, where)) {
    return failedResult(kId, kTitle, "\"" + url + "\" is not an http or https URL",
                        "set rest_url in " + configuration.path + " to the base URL of the master's REST interface");
  }
  if (isUnresolvedMaster(where.host, configuration, masterResolves)) {
    return skippedResult(kId, kTitle, kUnresolvedMasterReason);
  }

  std::unique_ptr<CURL, EasyRelease> easy(curl_easy_init());
  const standin::HeaderList headers(curl_slist_append(nullptr, (std::string("Accept: ") + kMediaType).c_str()));
  if (easy == nullptr || headers == nullptr) {
    return failedResult(kId, kTitle, "libcurl could not set up a request", "free some memory and run again");
  }
  std::string body;
  char error[CURL_ERROR_SIZE] = "";
  const std::string caFile = standin::setting(configuration.values, "ca_file", "");
  curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_CONNECTTIMEOUT_MS, kConnectMilliseconds);
  curl_easy_setopt(easy.get(), CURLOPT_TIMEOUT_MS, kExchangeMilliseconds);
  curl_easy_setopt(easy.get(), CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_SSL_VERIFYHOST, 2L);
  if (!caFile.empty()) curl_easy_setopt(easy.get(), CURLOPT_CAINFO, caFile.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(easy.get(), CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, &standin::appendToBody);
  curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &body);
  const CURLcode result = curl_easy_perform(easy.get());

  const std::string request = "GET " + url;
  if (result != CURLE_OK) {
    const std::string reason = error[0] != '\0' ? error : curl_easy_strerror(result);
    curl_off_t connectMicroseconds = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_CONNECT_TIME_T, &connectMicroseconds);
    return failedResult(kId, kTitle, request + ": " + reason, transportAction(result, where, connectMicroseconds > 0));
  }
  long code = 0;
  curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &code);
  const std::string answer = request + " answered HTTP " + std::to_string(code);
  if (code == 406) {
    return failedResult(kId, kTitle, answer + ": the master does not serve jobs as " + kMediaType,
                        "upgrade the master to a release that serves version 6.0 of the jobs interface");
  }
  if (!isJsonDocument(body)) {
    return failedResult(kId, kTitle, answer + " without a JSON document",
                        "check that rest_url (or the master's name) leads to the master's REST interface");
  }
  if (code == 404 || (code >= 200 && code < 300)) return okResult(kId, kTitle, answer + " with a JSON document");
  return failedResult(kId, kTitle, answer + " with a JSON error document",
                      "look up HTTP " + std::to_string(code) + " in the master's web service log");
}

}  // namespace doctor
