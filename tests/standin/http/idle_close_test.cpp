// Jobs polled seconds apart from a master that closes kept-alive
// connections idle for a second, in the clear and over TLS: a site run.
#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <thread>

#include "master_sim/MasterSimulator.h"
#include "platform/ks_curl_client.h"
#include "rest/KeepstoneRestApi.h"
#include "standin_environment.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// Polls of a job at gaps of 0.5, 1.5 and 3 s against a master that closes a
// connection idle for 1 s: a poll that finds its kept-alive connection
// closed goes again on a new one, so none fails. Over TLS, libcurl takes a
// connection closed with a TLS goodbye for a live one and sends the poll
// again only after it failed there, counting such retries per handle: seven
// of them go through one pooled handle here.
class JobPolls : public integration::StandinTest, public ::testing::WithParamInterface<bool> {};

TEST_P(JobPolls, NoneFailsWhenTheMasterClosesIdleConnections) {
  const bool tls = GetParam();
  master_sim::MasterSimulatorOptions options;
  options.keepAliveSeconds = 1;
  options.jobSeconds = 3600;
  if (tls) {
    ASSERT_FALSE(integration::certificates().empty());
    options.tlsCertFile = integration::certificates() + "/master.pem";
    options.tlsKeyFile = integration::certificates() + "/master.key";
  }
  master_sim::MasterSimulator master(options);
  ASSERT_TRUE(master.start());
  integration::writeConfig("server = 127.0.0.1\noutbox = none\nrest_url = " + master.url() +
                           (tls ? "\nca_file = " + integration::certificates() + "/ca.pem\n" : "\n"));
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
