#include "broker_address.h"

#include "protocol.h"

namespace standin {
namespace {

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
  parsed.port = kBrokerPort;
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

}  // namespace standin
