// Where the notification publisher finds its MQTT broker: one node, or the
// nodes of a broker cluster in the order they are tried.
#ifndef KSCDP_PLATFORM_STANDIN_CONFIG_BROKER_ADDRESS_H_
#define KSCDP_PLATFORM_STANDIN_CONFIG_BROKER_ADDRESS_H_

#include <string>
#include <vector>

namespace standin {

struct BrokerAddress {
  std::string host;
  int port = 0;
};

// Parses "host:port" or "host" (port 1883); an IPv6 host is written in
// brackets, "[::1]:1883". False for an empty host or a port outside 1-65535.
bool parseBrokerAddress(const std::string& text, BrokerAddress& address);

// Parses a comma-separated list of such addresses, blanks around each entry
// ignored; one entry is a list of one. False when an entry is empty or not an
// address: `badEntry` is then that entry, trimmed, and `addresses` is left
// as it was.
bool parseBrokerList(const std::string& text, std::vector<BrokerAddress>& addresses, std::string& badEntry);

// "host:port", an IPv6 host in brackets: as the log and the doctor name a
// broker.
std::string brokerText(const BrokerAddress& address);

// Whether `host` is an IPv4 or IPv6 address (without brackets) rather than a
// name: reaching it needs no name lookup.
bool isIpAddress(const std::string& host);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CONFIG_BROKER_ADDRESS_H_
