// The links over time, as an engine lives with them: a broker that refuses
// TLS for a while, and a master that closes kept-alive connections idle for
// a second while jobs are polled seconds apart. Each test takes 10 s or more:
// they run with the long site runs.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "master_sim/MasterSimulator.h"
#include "mosquitto_broker.h"
#include "platform/ks_curl_client.h"
#include "platform/notification.h"
#include "rest/KeepstoneRestApi.h"
#include "standin_environment.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using Clock = std::chrono::steady_clock;

// The certificates of scripts/make-certs.sh, made once for the whole run.
const std::string& certificates() {
  static const std::string dir = [] {
    const std::string made = integration::scratchPath("certs");
    const std::string make = "bash " KSCDP_SCRIPTS_DIR "/make-certs.sh " + made + " >/dev/null";
    return std::system(make.c_str()) == 0 ? made : std::string();
  }();
  return dir;
}

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

using LongLinks = integration::StandinTest;

// While the broker refuses connections, over TLS as in the clear, each
// attempt ends at once with the refusal named, and the publisher rests
// between rounds; the broker is reached again within the documented pause
// once it is back.
TEST_F(LongLinks, ABrokerRefusingTlsCostsNoCpuAndIsReachedOnceBack) {
  const std::string dir = certificates();
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
  EXPECT_LT(cpuSeconds() - cpuBefore, 0.5);  // a busy loop used all of a core's 10 s
  EXPECT_THAT(newLog(), HasSubstr(" 16 NotificationSupplier: cannot reach broker " + broker.address() +
                                  ": Connection refused; events wait"));

  const size_t logEnd = integration::logText().size();
  broker.start();
  // A round's pause is at most 1 s; the rest is the handshake on a loaded host.
  EXPECT_TRUE(logged("connected to broker " + broker.address(), logEnd, std::chrono::seconds(4))) << newLog();
  supplier.shutdown();
}

// Polls of a job at gaps of 0.5, 1.5 and 3 s against a master that closes a
// connection idle for 1 s: a poll that finds its kept-alive connection
// closed goes again on a new one, so none fails. Over TLS, libcurl takes a
// connection closed with a TLS goodbye for a live one; more than five such
// polls through one pooled handle once failed.
class JobPolls : public integration::StandinTest, public ::testing::WithParamInterface<bool> {};

TEST_P(JobPolls, NoneFailsWhenTheMasterClosesIdleConnections) {
  const bool tls = GetParam();
  master_sim::MasterSimulatorOptions options;
  options.keepAliveSeconds = 1;
  options.jobSeconds = 3600;
  if (tls) {
    ASSERT_FALSE(certificates().empty());
    options.tlsCertFile = certificates() + "/master.pem";
    options.tlsKeyFile = certificates() + "/master.key";
  }
  master_sim::MasterSimulator master(options);
  ASSERT_TRUE(master.start());
  integration::writeConfig("server = 127.0.0.1\noutbox = none\nrest_url = " + master.url() +
                           (tls ? "\nca_file = " + certificates() + "/ca.pem\n" : "\n"));
  const std::string path = keepstone_rest::kJobsPath + std::to_string(master.createJob("gold"));
  const bool cancel = false;  // read through a reference while a client lives
  const double gaps[] = {0.5, 0.5, 0.5, 1.5, 1.5, 1.5, 1.5, 3, 3, 3};
  for (size_t poll = 0; poll < sizeof gaps / sizeof gaps[0]; ++poll) {
    std::this_thread::sleep_for(std::chrono::duration<double>(gaps[poll]));
    // A client per poll, as the engine's jobs service makes one.
    KSClientCURL client("127.0.0.1", 0, CERT_TYPE_PEM, KS_CURL_SESSION_SHARED, nullptr, "", true, false, false, "", "",
                        "", "", "", "", false, cancel, "", 0);
    client.setupAcceptCurlOption(keepstone_rest::kVersionedMediaType);
    EXPECT_EQ(client.get(path), 0) << "poll " << poll << " after " << gaps[poll] << " s";
    EXPECT_EQ(client.m_responseCode, 200) << "poll " << poll << " after " << gaps[poll] << " s";
  }
  EXPECT_THAT(newLog(), Not(HasSubstr(" 16 KSClientCURL")));
}

INSTANTIATE_TEST_SUITE_P(InTheClearAndOverTls, JobPolls, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "Tls" : "Clear"; });

}  // namespace
