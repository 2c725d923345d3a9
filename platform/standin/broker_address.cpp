#include "broker_address.h"

#include <cstring>

#include "config_file.h"
#include "service_url.h"

namespace standin {
namespace {

const int kDefaultPort = 1883;

bool parsePort(const std::string& text, int& port) {
  if (text.empty() || text.size() > 5) return false;
  int value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  if (value < 1 || value > 65535) return false;
  port = value;
  return true;
}

}  // namespace

bool parseBrokerAddress(const std::string& text, BrokerAddress& address) {
  BrokerAddress parsed;
  parsed.port = kDefaultPort;
  if (!text.empty() && text[0] == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos) return false;
    parsed.host = text.substr(1, close - 1);
    const std::string rest = text.substr(close + 1);
    if (!rest.empty() && (rest[0] != ':' || !parsePort(rest.substr(1), parsed.port))) return false;
  } else {
    const size_t colon = text.find(':');
    parsed.host = text.substr(0, colon);
    if (colon != std::string::npos && !parsePort(text.substr(colon + 1), parsed.port)) return false;
  }
  if (parsed.host.empty()) return false;
  address = parsed;
  return true;
}

bool readBrokerAddress(BrokerAddress& address, std::string& error) {
  ConfigValues config;
  const int result = readConfigFile(config);
  if (result != 0) {
    error = "cannot read " + configFilePath() + ": " + std::strerror(result);
    return false;
  }
  std::string text = setting(config, "broker", std::string());
  if (text.empty()) {
    if (config.servers.empty() || config.servers[0].empty()) {
      error = configFilePath() + " names neither a broker nor a master server";
      return false;
    }
    text = hostAndPort(config.servers[0], kDefaultPort);
  }
  if (!parseBrokerAddress(text, address)) {
    error = "broker \"" + text + "\" in " + configFilePath() + " is not host:port";
    return false;
  }
  return true;
}

}  // namespace standin
