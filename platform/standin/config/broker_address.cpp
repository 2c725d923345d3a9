#include "platform/standin/config/broker_address.h"

#include <arpa/inet.h>

#include "platform/standin/config/protocol.h"
#include "platform/standin/config/service_url.h"

namespace standin {
namespace {

const char kBlanks[] = " \t";

std::string trim(const std::string& text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return std::string();
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

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

bool parseBrokerList(const std::string& text, std::vector<BrokerAddress>& addresses, std::string& badEntry) {
  std::vector<BrokerAddress> parsed;
  size_t start = 0;
  for (;;) {
    const size_t comma = text.find(',', start);
    const std::string entry = trim(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
    BrokerAddress address;
    if (!parseBrokerAddress(entry, address)) {
      badEntry = entry;
      return false;
    }
    parsed.push_back(address);
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  addresses = std::move(parsed);
  return true;
}

std::string brokerText(const BrokerAddress& address) { return hostAndPort(address.host, address.port); }

bool isIpAddress(const std::string& host) {
  unsigned char address[sizeof(struct in6_addr)];
  return inet_pton(AF_INET, host.c_str(), address) == 1 || inet_pton(AF_INET6, host.c_str(), address) == 1;
}

}  // namespace standin
