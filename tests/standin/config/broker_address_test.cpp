// The broker address, and the list of them, as the "broker" setting writes
// them.
#include "platform/standin/config/broker_address.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "case_table.h"

namespace {

TEST(BrokerAddressText, IsHostAndPortWithIpv6InBrackets) {
  for (const cases::Row& c : cases::read("broker_addresses.cases")) {
    standin::BrokerAddress address;
    address.host = "unchanged";
    const bool parsed = standin::parseBrokerAddress(c[0], address);
    EXPECT_EQ(parsed ? address.host + " " + std::to_string(address.port) : "-", c[1]) << c[0];
    if (!parsed) {
      EXPECT_EQ(address.host, "unchanged") << c[0];
    }
  }
}

TEST(BrokerListText, IsAddressesSeparatedByCommasAndRefusedWholeForOneBadEntry) {
  for (const cases::Row& c : cases::read("broker_lists.cases")) {
    std::vector<standin::BrokerAddress> addresses(1);
    std::string badEntry = "unset";
    std::string parsed;
    if (standin::parseBrokerList(c[0], addresses, badEntry)) {
      for (const standin::BrokerAddress& address : addresses)
        parsed += (parsed.empty() ? "" : ", ") + address.host + " " + std::to_string(address.port);
    } else {
      parsed = "bad: " + badEntry;
      EXPECT_EQ(addresses.size(), 1u) << c[0];
    }
    EXPECT_EQ(parsed, c[1]) << c[0];
  }
}

}  // namespace
