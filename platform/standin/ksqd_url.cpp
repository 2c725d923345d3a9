#include "ksqd_url.h"

#include "service_url.h"

namespace standin {

bool ksqdRequestUrl(const ConfigValues& values, const std::string& masterServer, int kind, std::string& url,
                    std::string& problem) {
  const int kDefaultPort = 8557;
  std::string base;
  if (!serviceBaseUrl(values, "ksqd_url", "http://" + hostAndPort(masterServer, kDefaultPort), base, problem)) {
    return false;
  }
  while (!base.empty() && base.back() == '/') base.pop_back();
  url = base + "/ksqd/" + std::to_string(kind);
  return true;
}

}  // namespace standin
