#include "ksqd_url.h"

namespace standin {

std::string ksqdRequestUrl(const ConfigValues& values, const std::string& masterServer, int kind) {
  std::string base = setting(values, "ksqd_url", "");
  while (!base.empty() && base.back() == '/') base.pop_back();
  if (base.empty()) {
    const bool ipv6 = masterServer.find(':') != std::string::npos;
    base = "http://" + (ipv6 ? "[" + masterServer + "]" : masterServer) + ":8557";
  }
  return base + "/ksqd/" + std::to_string(kind);
}

}  // namespace standin
