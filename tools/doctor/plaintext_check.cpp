// The links in use that travel in the clear: backup requests, job ids and
// alerts that anyone on the path can read or forge.
#include <strings.h>

#include "checks.h"
#include "platform/standin/config/ksqd_url.h"
#include "platform/standin/config/url_credentials.h"
#include "platform/standin/http/http_settings.h"

namespace doctor {
namespace {

const char kId[] = "plaintext";
const char kTitle[] = "links in the clear";

bool isPlainHttp(const std::string& url) { return strncasecmp(url.c_str(), "http:", 5) == 0; }

}  // namespace

CheckResult checkPlaintextLinks(const Configuration& configuration) {
  if (!configuration.namesMaster()) return skippedResult(kId, kTitle, kNoMasterReason);
  std::string links;
  const auto add = [&links](const std::string& link) { links += (links.empty() ? "" : ", ") + link; };
  const std::string restUrl = standin::httpSettings(configuration).restUrl;
  if (isPlainHttp(restUrl)) add("rest_url " + standin::urlWithoutPassword(restUrl));
  std::string daemonUrl;
  std::string problem;
  if (standin::ksqdRequestUrl(configuration.values, configuration.master(), 0, daemonUrl, problem) &&
      isPlainHttp(daemonUrl)) {
    add("ksqd_url " + standin::urlWithoutPassword(standin::setting(configuration.values, "ksqd_url", "")));
  }
  if (standin::setting(configuration.values, "broker_tls", "off") != "on") add("the broker (broker_tls is off)");
  if (links.empty()) return okResult(kId, kTitle, "none: every link is TLS");
  return warningResult(kId, kTitle, "in the clear: " + links,
                       "use https URLs and broker_tls = on, with ca_file and the host's certificate, unless this is "
                       "a lab on one machine");
}

}  // namespace doctor
