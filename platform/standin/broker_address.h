// Where the notification publisher finds its MQTT broker.
#ifndef KSCDP_PLATFORM_STANDIN_BROKER_ADDRESS_H_
#define KSCDP_PLATFORM_STANDIN_BROKER_ADDRESS_H_

#include <string>

namespace standin {

struct BrokerAddress {
  std::string host;
  int port = 0;
};

// Parses "host:port" or "host" (port 1883); an IPv6 host is written in
// brackets, "[::1]:1883". False for an empty host or a port outside 1-65535.
bool parseBrokerAddress(const std::string& text, BrokerAddress& address);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_BROKER_ADDRESS_H_
