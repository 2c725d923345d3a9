// Where the notification publisher looks for its broker.
#include <gtest/gtest.h>

#include <string>

#include "platform/standin/broker_address.h"
#include "standin_environment.h"

namespace {

TEST(BrokerAddress, ComesFromTheConfigurationFile) {
  const struct {
    const char* config;
    bool found;
    const char* host;
    int port;
  } cases[] = {
      {"server = master.example\nbroker = 10.0.0.9:18830\n", true, "10.0.0.9", 18830},
      {"server = m\nbroker = [::1]:1884\n", true, "::1", 1884},
      {"server = m\nbroker = broker.example\n", true, "broker.example", 1883},
      {"server = master.example\nserver = media.example\n", true, "master.example", 1883},
      {"server = ::1\n", true, "::1", 1883},
      {"host_name = cdp-07\n", false, "", 0},
      {"server = m\nbroker = m:65536\n", false, "", 0},
      {"server = m\nbroker = :1883\n", false, "", 0},
      {"server = m\nbroker = m:18x\n", false, "", 0},
      {"server master\n", false, "", 0},
  };
  for (const auto& c : cases) {
    integration::writeConfig(c.config);
    standin::BrokerAddress address;
    std::string error;
    ASSERT_EQ(standin::readBrokerAddress(address, error), c.found) << c.config;
    if (!c.found) {
      EXPECT_NE(error.find("keepstone.conf"), std::string::npos) << c.config << ": " << error;
      continue;
    }
    EXPECT_EQ(address.host, c.host) << c.config;
    EXPECT_EQ(address.port, c.port) << c.config;
  }
}

}  // namespace
