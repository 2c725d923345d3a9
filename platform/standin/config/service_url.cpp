#include "platform/standin/config/service_url.h"

#include <strings.h>

#include "platform/standin/config/url_credentials.h"

namespace standin {
namespace {

bool startsWithNoCase(const std::string& text, const char* prefix) {
  const size_t length = std::char_traits<char>::length(prefix);
  return text.size() >= length && strncasecmp(text.c_str(), prefix, length) == 0;
}

}  // namespace

std::string urlHost(const std::string& host) {
  const bool bareIpv6 = host.find(':') != std::string::npos && host[0] != '[';
  return bareIpv6 ? "[" + host + "]" : host;
}

std::string hostAndPort(const std::string& host, int port) { return urlHost(host) + ":" + std::to_string(port); }

bool serviceBaseUrl(const ConfigValues& values, const std::string& key, const std::string& fallback, std::string& url,
                    std::string& problem) {
  return serviceBaseUrl(key, setting(values, key, ""), fallback, url, problem);
}

bool serviceBaseUrl(const std::string& key, const std::string& configured, const std::string& fallback,
                    std::string& url, std::string& problem) {
  if (configured.empty()) {
    url = fallback;
    return true;
  }
  const std::string shown = "\"" + urlWithoutPassword(configured) + "\"";
  if (!startsWithNoCase(configured, "http://") && !startsWithNoCase(configured, "https://")) {
    problem = key + " " + shown + " in " + configFilePath() +
              " is not an http:// or https:// URL; correct it, or remove it to use the default";
    return false;
  }
  if (startsWithNoCase(configured, "http://") && hasUrlCredentials(configured)) {
    problem = key + " " + shown + " in " + configFilePath() +
              " carries credentials over plain http://: a password never travels in the clear; use https://";
    return false;
  }
  url = configured;
  return true;
}

}  // namespace standin
