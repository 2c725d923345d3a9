// The REST jobs interface, asked as the library asks it: the same base URL
// rule, the same media type and the stand-ins' one request path, with peer
// and host verified against ca_file.
#include <jansson.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "checks.h"
#include "platform/standin/config/service_url.h"
#include "platform/standin/config/url_credentials.h"
#include "platform/standin/http/curl_exchange.h"
#include "platform/standin/http/http_settings.h"
#include "rest/KeepstoneRestApi.h"
#include "tls_advice.h"
#include "url_parts.h"

namespace doctor {
namespace {

const char kId[] = "rest";
const char kTitle[] = "REST jobs interface";
// Job ids count up from 1; a GET of job 0 only ever finds nothing.
const char kJobZero[] = "0";
const long kConnectSeconds = 2;
const long kExchangeSeconds = 3;

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
  const std::string advice =
      "set rest_url in " + configuration.path + " to the base URL of the master's REST interface";
  std::string base;
  std::string problem;
  if (!standin::serviceBaseUrl(configuration.values, "rest_url",
                               "https://" + standin::hostAndPort(configuration.master(), keepstone_rest::kPort), base,
                               problem)) {
    return failedResult(kId, kTitle, problem, advice);
  }
  const std::string url = base + "/" + keepstone_rest::kJobsPath + kJobZero;
  UrlParts where;
  CheckResult verdict;
  if (!serviceAddress(kId, kTitle, url, advice, configuration, masterResolves, where, verdict)) return verdict;

  standin::CurlSettings settings = standin::httpSettings(configuration).curl;
  // libcurl reads ca_file only once the handshake needs it, so that a peer
  // that hangs up first would hide an unreadable one.
  const bool https = strncasecmp(url.c_str(), "https:", 6) == 0;
  if (https && !settings.caFile.empty() && access(settings.caFile.c_str(), R_OK) != 0) {
    return failedResult(kId, kTitle, "cannot read ca_file " + settings.caFile + ": " + std::strerror(errno),
                        "set ca_file in " + configuration.path + " to a CA bundle that this user can read");
  }
  settings.connectTimeoutSeconds = kConnectSeconds;
  settings.timeoutSeconds = kExchangeSeconds;
  standin::CurlExchange exchange;
  if (!exchange.addHeader(std::string("Accept: ") + keepstone_rest::kVersionedMediaType)) {
    return failedResult(kId, kTitle, "libcurl could not set up a request", "free some memory and run again");
  }
  const CURLcode result = exchange.perform(nullptr, url, nullptr, settings);

  const std::string request = "GET " + standin::urlWithoutPassword(url);
  if (result != CURLE_OK) {
    // Once connected over https, a failure is the handshake's or follows it.
    std::string action =
        https && exchange.connected() ? tlsAction(exchange.errorText(), configuration, kMasterTlsKeys, where.host) : "";
    if (result == CURLE_SSL_CERTPROBLEM) action = unusableCertificateAction(configuration, kMasterTlsKeys);
    if (action.empty()) action = transportAction(result, where, exchange.connected());
    return failedResult(kId, kTitle, request + ": " + exchange.errorText(), action);
  }
  const long code = exchange.responseCode();
  const std::string answer = request + " answered HTTP " + std::to_string(code);
  if (code == 406) {
    return failedResult(kId, kTitle,
                        answer + ": the master does not serve jobs as " + keepstone_rest::kVersionedMediaType,
                        "upgrade the master to a release that serves version " +
                            std::string(keepstone_rest::kMaxVersion) + " of the jobs interface");
  }
  if (!isJsonDocument(exchange.body())) {
    return failedResult(kId, kTitle, answer + " without a JSON document",
                        "check that rest_url (or the master's name) leads to the master's REST interface");
  }
  if (code == 404 || (code >= 200 && code < 300)) return okResult(kId, kTitle, answer + " with a JSON document");
  return failedResult(kId, kTitle, answer + " with a JSON error document",
                      "look up HTTP " + std::to_string(code) + " in the master's web service log");
}

}  // namespace doctor
