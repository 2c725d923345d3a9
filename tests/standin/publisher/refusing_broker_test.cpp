// The publisher against a broker that refuses TLS connections for ten
// seconds, then comes back: a site run.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <chrono>
#include <string>
#include <thread>

#include "mosquitto_broker.h"
#include "platform/notification.h"
#include "standin_environment.h"

namespace {

using ::testing::HasSubstr;
using Clock = std::chrono::steady_clock;

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Waits up to `limit` for `text` in what the stand-ins logged past `from`.
bool logged(const std::string& text, size_t from, Clock::duration limit) {
  for (const Clock::time_point deadline = Clock::now() + limit;;) {
    if (integration::logText().find(text, from) != std::string::npos) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

using RefusingBroker = integration::StandinTest;

// While nothing listens where a TLS broker should, each attempt ends at once
// with the refusal named, and the publisher rests between rounds; the broker
// is reached again within the documented pause once it is back.
TEST_F(RefusingBroker, OverTlsCostsNoCpuIsNamedAndIsReachedOnceBack) {
  const std::string dir = integration::certificates();
  ASSERT_FALSE(dir.empty());
  testbed::MosquittoBroker broker({false, dir + "/broker.pem", dir + "/broker.key", "", ""});
  broker.stop();
  integration::writeConfig("server = m.invalid\noutbox = none\nbroker_tls = on\nbroker = " + broker.address() +
                           "\nbroker_ca_file = " + dir + "/ca.pem\n");
  NotificationSupplier supplier;
  NotificationEvent event;
  event.messageKey = "eventlog.omra.ksu.cdp.test";
  ASSERT_EQ(supplier.send_notification(event), 0);

  const double cpuBefore = cpuSeconds();
  std::this_thread::sleep_for(std::chrono::seconds(10));
  EXPECT_LT(cpuSeconds() - cpuBefore, 0.5);  // a loop polling the closed socket spends most of it
  EXPECT_THAT(newLog(), HasSubstr(" 16 NotificationSupplier: cannot reach broker " + broker.address() +
                                  ": Connection refused; events wait"));

  const size_t logEnd = integration::logText().size();
  broker.start();
  // A round's pause is at most 1 s; the rest is the handshake on a loaded host.
  EXPECT_TRUE(logged("connected to broker " + broker.address(), logEnd, std::chrono::seconds(4))) << newLog();
  supplier.shutdown();
}

}  // namespace
