// The broker address, and the list of them, as the "broker" setting writes
// them.
#include "platform/standin/broker_address.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

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

TEST(BrokerListText, IsAddressesSeparatedByCommasAndRefusedWholeForOneBadEntry) {
  const struct {
    const char* text;
    const char* parsed;  // "<host> <port>" per entry, separated by ", "; else "bad: <the bad entry>"
  } cases[] = {
      {"m1.example", "m1.example 1883"},
      {"10.0.0.1:1884,10.0.0.2", "10.0.0.1 1884, 10.0.0.2 1883"},
      {" a:1 ,\tb:2 , [::1]:3 ", "a 1, b 2, ::1 3"},
      {"[fe80::1%eth0]:8883, n2", "fe80::1%eth0 8883, n2 1883"},
      {"a:1, a:1", "a 1, a 1"},
      {"a:1,,b:2", "bad: "},
      {"a:1, ", "bad: "},
      {", a:1", "bad: "},
      {"", "bad: "},
      {"a:1, b:x, c", "bad: b:x"},
      {"a:1 b:2", "bad: a:1 b:2"},
      {"a:1;b:2", "bad: a:1;b:2"},
  };
  for (const auto& c : cases) {
    std::vector<standin::BrokerAddress> addresses(1);
    std::string badEntry = "unset";
    std::string parsed;
    if (standin::parseBrokerList(c.text, addresses, badEntry)) {
      for (const standin::BrokerAddress& address : addresses)
        parsed += (parsed.empty() ? "" : ", ") + address.host + " " + std::to_string(address.port);
    } else {
      parsed = "bad: " + badEntry;
      EXPECT_EQ(addresses.size(), 1u) << c.text;
    }
    EXPECT_EQ(parsed, c.parsed) << c.text;
  }
}

}  // namespace
