// The way the publisher goes round a broker list: the route each host takes
// with broker_order = spread, and the jittered pauses between attempts.
#include "platform/standin/mqtt/broker_rotation.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <sstream>
#include <string>
#include <vector>

#include "case_table.h"
#include "platform/standin/config/broker_route.h"
#include "platform/standin/config/broker_settings.h"

namespace {

using std::chrono::milliseconds;

const int kSeeds = 300;

struct Attempt {
  size_t entries = 1;
  standin::BrokerRoute route;
  bool connects = false;
};

// "<entries>[@<first>[-]]:<f|c>"
Attempt parseAttempt(const std::string& text) {
  Attempt attempt;
  size_t end = 0;
  attempt.entries = std::stoul(text, &end);
  if (text[end] == '@') {
    const std::string rest = text.substr(end + 1);
    attempt.route.first = std::stoul(rest, &end);
    attempt.route.backwards = rest[end] == '-';
  }
  attempt.connects = text.back() == 'c';
  return attempt;
}

std::vector<std::string> words(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> found;
  for (std::string word; in >> word;) found.push_back(word);
  return found;
}

// Every seed tries the entries of the table and pauses at most the bound the
// table gives; over the seeds, the pauses cover that bound from near zero to
// near the bound, as full jitter must.
TEST(BrokerRotation, GoesRoundItsRouteAndDrawsEachPauseUpToItsBound) {
  for (const cases::Row& c : cases::read("broker_rotations.cases")) {
    const std::vector<std::string> attempts = words(c[0]);
    const std::vector<std::string> expected = words(c[1]);
    ASSERT_EQ(attempts.size(), expected.size()) << c[0];
    std::vector<milliseconds> bounds;
    for (const std::string& step : expected) {
      const size_t slash = step.find('/');
      bounds.push_back(milliseconds(slash == std::string::npos ? 0 : std::stol(step.substr(slash + 1))));
    }
    std::vector<milliseconds> shortest(bounds.size(), milliseconds::max());
    std::vector<milliseconds> longest(bounds.size(), milliseconds::zero());
    for (int seed = 1; seed <= kSeeds; ++seed) {
      standin::BrokerRotation rotation(milliseconds(100), milliseconds(1000), milliseconds(500), seed);
      std::string trace;
      for (size_t i = 0; i < attempts.size(); ++i) {
        const Attempt attempt = parseAttempt(attempts[i]);
        trace += (trace.empty() ? "" : " ") + std::to_string(rotation.entryToTry(attempt.route, attempt.entries));
        if (attempt.connects) {
          rotation.connected();
          continue;
        }
        const auto pause = rotation.attemptFailed();
        const auto within = std::chrono::duration_cast<milliseconds>(pause);
        shortest[i] = std::min(shortest[i], within);
        longest[i] = std::max(longest[i], within);
        const bool inBound = pause >= pause.zero() && pause <= bounds[i];
        trace += "/" + (inBound ? std::to_string(bounds[i].count()) : "over:" + std::to_string(within.count()));
      }
      ASSERT_EQ(trace, c[1]) << c[0] << ", seed " << seed;
    }
    for (size_t i = 0; i < bounds.size(); ++i) {
      if (bounds[i] == milliseconds::zero()) continue;
      EXPECT_LE(shortest[i], bounds[i] / 10) << c[0] << ", attempt " << i + 1;
      EXPECT_GE(longest[i], bounds[i] * 9 / 10) << c[0] << ", attempt " << i + 1;
    }
  }
}

std::string named(const std::string& pattern, int i) { return cases::filled(pattern, {{"{i}", std::to_string(i)}}); }

bool withinShare(size_t count, double share, double tolerance) {
  return count >= share * (1 - tolerance) && count <= share * (1 + tolerance);
}

// Many hosts spread within 20% of an even share over the entries, and when
// one entry fails, the hosts that held it divide between its neighbours so
// that, for three entries, each survivor holds within 20% of half the hosts.
TEST(BrokerRoute, SpreadsHostsEvenlyBeforeAndAfterAnEntryFails) {
  for (const cases::Row& c : cases::read("broker_spreads.cases")) {
    const int hosts = std::stoi(c[1]);
    const size_t entries = std::stoul(c[2]);
    std::vector<standin::BrokerRoute> routes;
    for (int i = 1; i <= hosts; ++i) routes.push_back(standin::spreadRoute(named(c[0], i), entries));
    std::vector<size_t> first(entries, 0);
    for (const standin::BrokerRoute& route : routes) ++first.at(route.first);
    for (size_t entry = 0; entry < entries; ++entry) {
      EXPECT_TRUE(withinShare(first[entry], double(hosts) / entries, 0.2))
          << c[0] << " x" << hosts << ": entry " << entry << " first for " << first[entry];
    }
    if (entries != 3) continue;
    for (size_t failed = 0; failed < entries; ++failed) {
      std::vector<size_t> after = first;
      after[failed] = 0;
      for (const standin::BrokerRoute& route : routes) {
        if (route.first == failed) ++after[(failed + (route.backwards ? entries - 1 : 1)) % entries];
      }
      for (size_t entry = 0; entry < entries; ++entry) {
        if (entry == failed) continue;
        EXPECT_TRUE(withinShare(after[entry], hosts / 2.0, 0.2))
            << c[0] << " x" << hosts << ": entry " << entry << " holds " << after[entry] << " after entry " << failed
            << " failed";
      }
    }
  }
}

// A host's route is the same on every start and in every release: a fleet
// that upgrades must not reshuffle over the cluster's nodes.
TEST(BrokerRoute, StaysTheSameForTheSameName) {
  for (const cases::Row& c : cases::read("broker_route_pins.cases")) {
    const standin::BrokerRoute route = standin::spreadRoute(c[0], std::stoul(c[1]));
    EXPECT_EQ(std::to_string(route.first) + (route.backwards ? "-" : ""), c[2]) << c[0] << " over " << c[1];
  }
}

standin::BrokerRoute routeOf(const std::string& text) {
  standin::ConfigSnapshot config;
  config.path = "keepstone.conf";
  EXPECT_EQ(standin::parseConfigText(text, config.values), 0) << text;
  standin::BrokerSettings settings;
  std::string error;
  EXPECT_TRUE(standin::brokerSettings(config, settings, error)) << error;
  return standin::brokerRoute(settings);
}

std::string systemHostName() {
  char name[HOST_NAME_MAX + 1] = {};
  return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

// Spread follows host_name, else the system's host name; written starts at
// the first entry and goes forwards, whatever the host is called.
TEST(BrokerRoute, FollowsTheOrderAndTheHostNameOfTheConfiguration) {
  const std::string nodes = "server = m\nbroker = n1:1883, n2:1883, n3:1883\n";
  for (int i = 1; i <= 30; ++i) {
    const std::string host = "cdp-" + std::to_string(i);
    const standin::BrokerRoute wanted = standin::spreadRoute(host, 3);
    const standin::BrokerRoute spread = routeOf(nodes + "broker_order = spread\nhost_name = " + host + "\n");
    EXPECT_EQ(spread.first, wanted.first) << host;
    EXPECT_EQ(spread.backwards, wanted.backwards) << host;
    const standin::BrokerRoute written = routeOf(nodes + "host_name = " + host + "\n");
    EXPECT_EQ(written.first, 0u) << host;
    EXPECT_FALSE(written.backwards) << host;
  }
  const standin::BrokerRoute unnamed = routeOf(nodes + "broker_order = spread\n");
  EXPECT_EQ(unnamed.first, standin::spreadRoute(systemHostName(), 3).first);
  EXPECT_EQ(unnamed.backwards, standin::spreadRoute(systemHostName(), 3).backwards);
}

}  // namespace
