// How the stand-ins write the master's host into the REST URL, the request
// daemon's URL and the broker address.
#include <gtest/gtest.h>

#include <string>

#include "platform/standin/broker_address.h"
#include "platform/standin/ksqd_url.h"
#include "platform/standin/service_url.h"
#include "standin_environment.h"

namespace {

TEST(ServiceAddress, EveryHostFormIsWrittenOneWayEverywhere) {
  const struct {
    const char* host;
    const char* inUrl;
    const char* bare;  // as the broker client connects to it
  } cases[] = {
      {"m1.example", "m1.example", "m1.example"},
      {"10.0.0.1", "10.0.0.1", "10.0.0.1"},
      {"::1", "[::1]", "::1"},
      {"[::1]", "[::1]", "::1"},
      {"fe80::1%eth0", "[fe80::1%eth0]", "fe80::1%eth0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.host);
    const std::string inUrl = c.inUrl;
    EXPECT_EQ(standin::hostAndPort(c.host, 1556), inUrl + ":1556");

    standin::ConfigValues config;
    std::string url;
    std::string problem;
    ASSERT_TRUE(standin::ksqdRequestUrl(config, c.host, 1, url, problem)) << problem;
    EXPECT_EQ(url, "http://" + inUrl + ":8557/ksqd/1");

    // The broker: the master's default port, or a "broker" setting with and
    // without a port.
    for (const std::string& broker : {std::string(), inUrl, inUrl + ":99"}) {
      integration::writeConfig(std::string("server = ") + c.host + "\nbroker = " + broker + "\n");
      standin::BrokerAddress address;
      std::string error;
      ASSERT_TRUE(standin::readBrokerAddress(address, error)) << broker << ": " << error;
      EXPECT_EQ(address.host, c.bare) << broker;
      EXPECT_EQ(address.port, broker.size() > inUrl.size() ? 99 : 1883) << broker;
    }
  }
}

}  // namespace
