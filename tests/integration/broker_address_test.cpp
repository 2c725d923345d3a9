// Where the notification publisher looks for its broker.
#include <gtest/gtest.h>

#include <string>

#include "platform/standin/broker_address.h"
#include "test_files.h"

namespace {

TEST(BrokerAddress, Parses) {
  const struct {
    const char* text;
    bool valid;
    const char* host;
    int port;
  } cases[] = {
      {"127.0.0.1:18830", true, "127.0.0.1", 18830},
      {"broker.example", true, "broker.example", 1883},
      {"[::1]:1884", true, "::1", 1884},
      {"[::1]", true, "::1", 1883},
      {"h:65535", true, "h", 65535},
      {"h:1", true, "h", 1},
      {"", false, "", 0},
      {":1883", false, "", 0},
      {"h:", false, "", 0},
      {"h:0", false, "", 0},
      {"h:65536", false, "", 0},
      {"h:18x", false, "", 0},
      {"h:-1", false, "", 0},
      {"[::1", false, "", 0},
      {"[::1]1883", false, "", 0},
  };
  for (const auto& c : cases) {
    standin::BrokerAddress address;
    ASSERT_EQ(standin::parseBrokerAddress(c.text, address), c.valid) << c.text;
    if (!c.valid) continue;
    EXPECT_EQ(address.host, c.host) << c.text;
    EXPECT_EQ(address.port, c.port) << c.text;
  }
}

TEST(BrokerAddress, ComesFromTheConfigurationFile) {
  const struct {
    const char* name;
    const char* config;
    bool found;
    const char* host;
    int port;
  } cases[] = {
      {"broker key", "server = master.example\nbroker = 10.0.0.9:18830\n", true, "10.0.0.9", 18830},
      {"master server", "server = master.example\nserver = media.example\n", true, "master.example", 1883},
      {"IPv6 master server", "server = ::1\n", true, "::1", 1883},
      {"neither", "host_name = cdp-07\n", false, "", 0},
      {"bad broker", "server = m\nbroker = m:99999\n", false, "", 0},
      {"unparsable file", "server master\n", false, "", 0},
  };
  for (const auto& c : cases) {
    testbed::TemporaryConfig config(c.config);
    standin::BrokerAddress address;
    std::string error;
    ASSERT_EQ(standin::readBrokerAddress(address, error), c.found) << c.name;
    if (!c.found) {
      EXPECT_NE(error.find(config.path()), std::string::npos) << c.name << ": " << error;
      continue;
    }
    EXPECT_EQ(address.host, c.host) << c.name;
    EXPECT_EQ(address.port, c.port) << c.name;
  }
}

}  // namespace
