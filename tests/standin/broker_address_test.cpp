// The broker address as the "broker" setting writes it.
#include "platform/standin/broker_address.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(BrokerAddressText, IsHostAndPortWithIpv6InBrackets) {
  const struct {
    const char* text;
    const char* parsed;  // "<host> <port>"; null: refused
  } cases[] = {
      {"m1.example", "m1.example 1883"},
      {"10.0.0.9:18830", "10.0.0.9 18830"},
      {"[::1]:1", "::1 1"},
      {"[fe80::1%eth0]", "fe80::1%eth0 1883"},
      {"m:65535", "m 65535"},
      {"m:65536", nullptr},
      {"m:0", nullptr},
      {"m:", nullptr},
      {"m:123456", nullptr},
      {"m:8a", nullptr},
      {":1883", nullptr},
      {"", nullptr},
      {"[]:1883", nullptr},
      {"[::1", nullptr},
      {"[::1]1883", nullptr},
      {"::1", nullptr},  // a bare IPv6 address is no host:port
  };
  for (const auto& c : cases) {
    standin::BrokerAddress address;
    address.host = "unchanged";
    const bool parsed = standin::parseBrokerAddress(c.text, address);
    EXPECT_EQ(parsed ? address.host + " " + std::to_string(address.port) : std::string(),
              c.parsed != nullptr ? c.parsed : "")
        << c.text;
    if (!parsed) {
      EXPECT_EQ(address.host, "unchanged") << c.text;
    }
  }
}

}  // namespace
