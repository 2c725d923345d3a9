#include "checks.h"
#include "platform/standin/config/broker_settings.h"
#include "platform/standin/config/ksqd_url.h"
#include "platform/standin/config/service_url.h"
#include "platform/standin/config/url_credentials.h"
#include "rest/KeepstoneRestApi.h"
#include "url_parts.h"

namespace doctor {

const char kUnresolvedMasterReason[] = "needs the master's name to resolve";
const char kNoMasterReason[] = "needs a configuration file that names a master server";

bool isUnresolvedMaster(const std::string& host, const Configuration& configuration, bool masterResolves) {
  return !masterResolves && host == configuration.master();
}

bool serviceAddress(const std::string& id, const std::string& title, const std::string& url, const std::string& advice,
                    const Configuration& configuration, bool masterResolves, UrlParts& where, CheckResult& verdict) {
  if (!splitUrl(url, where)) {
    verdict =
        failedResult(id, title, "\"" + standin::urlWithoutPassword(url) + "\" is not an http or https URL", advice);
    return false;
  }
  if (isUnresolvedMaster(where.host, configuration, masterResolves)) {
    verdict = skippedResult(id, title, kUnresolvedMasterReason);
    return false;
  }
  return true;
}

bool linksUseMastersName(const Configuration& configuration) {
  const std::string master = configuration.master();
  std::string url;
  std::string problem;
  UrlParts where;
  const std::string restDefault = "https://" + standin::hostAndPort(master, keepstone_rest::kPort);
  if (standin::serviceBaseUrl(configuration.values, "rest_url", restDefault, url, problem) && splitUrl(url, where) &&
      where.host == master) {
    return true;
  }
  if (standin::ksqdRequestUrl(configuration.values, master, 0, url, problem) && splitUrl(url, where) &&
      where.host == master) {
    return true;
  }
  standin::BrokerSettings broker;
  if (!standin::brokerSettings(configuration, broker, problem)) return false;  // the broker check says why
  for (const standin::BrokerAddress& address : broker.addresses) {
    if (address.host == master) return true;
  }
  return false;
}

}  // namespace doctor
