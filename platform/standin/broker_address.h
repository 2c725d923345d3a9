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

// Reads the configuration file afresh into a private copy: the "broker"
// setting, else "<master server>:1883". On failure returns false and says why
// in `error`.
bool readBrokerAddress(BrokerAddress& address, std::string& error);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_BROKER_ADDRESS_H_
