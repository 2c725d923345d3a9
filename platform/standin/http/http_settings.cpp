#include "platform/standin/http/http_settings.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace standin {
namespace {

const long kDefaultTimeoutSeconds = 30;

long timeoutSeconds(const ConfigValues& values) {
  const std::string text = setting(values, "http_timeout", "");
  char* end = nullptr;
  errno = 0;
  const long seconds = std::strtol(text.c_str(), &end, 10);
  const bool valid = !text.empty() && errno == 0 && *end == '\0' && seconds > 0 && seconds <= INT_MAX / 1000;
  return valid ? seconds : kDefaultTimeoutSeconds;
}

}  // namespace

HttpSettings httpSettings(const ConfigSnapshot& config) {
  HttpSettings settings;
  settings.restUrl = setting(config.values, "rest_url", "");
  settings.curl.caFile = setting(config.values, "ca_file", "");
  settings.curl.certFile = setting(config.values, "cert_file", "");
  settings.curl.keyFile = setting(config.values, "key_file", "");
  settings.curl.timeoutSeconds = timeoutSeconds(config.values);
  return settings;
}

}  // namespace standin
