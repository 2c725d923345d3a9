#include "platform/standin/config/ksqd_url.h"

#include "platform/standin/config/protocol.h"
#include "platform/standin/config/service_url.h"

namespace standin {

bool ksqdRequestUrl(const ConfigValues& values, const std::string& masterServer, int kind, std::string& url,
                    std::string& problem) {
  std::string base;
  if (!serviceBaseUrl(values, "ksqd_url", "https://" + hostAndPort(masterServer, kDaemonPort), base, problem)) {
    return false;
  }
  while (!base.empty() && base.back() == '/') base.pop_back();
  url = base + kDaemonPath + std::to_string(kind);
  return true;
}

}  // namespace standin
