// kscdp-doctor as an operator runs it: the built program, a real
// configuration file, the master simulator on loopback and a mosquitto
// broker. One case per broken link, and one where all is well; in each the
// doctor must name the broken link, end in time, and start no backup.
#include <gtest/gtest.h>
#include <jansson.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "master_sim/MasterSimulator.h"
#include "mosquitto_broker.h"
#include "mqtt_subscriber.h"
#include "standin_environment.h"

namespace {

// The checks in the order the doctor reports them.
const char kCheckIds[] = "config master-name rest daemon broker log outbox";

struct DoctorCase {
  const char* name;
  // The configuration file's text; "{master}", "{other-release}", "{down}"
  // and "{broker}" stand for URLs and addresses of the test's own. Null: no
  // file at all.
  const char* config;
  const char* statuses;      // of the checks, in order
  const char* namesProblem;  // found in the first failure's detail and action
};

// Test names are enough in gtest's messages.
void PrintTo(const DoctorCase& test, std::ostream* out) { *out << test.name; }

const char kAllWell[] =
    "server = 127.0.0.1\nhost_name = cdp-host\nrest_url = {master}\nksqd_url = {master}\nbroker = {broker}\n";

const std::vector<DoctorCase> kCases = {
    {"no_file", nullptr, "failed skipped skipped skipped skipped ok skipped", "KEEPSTONE_CONF"},
    {"bad_line", "server = 127.0.0.1\nhost_name = cdp-host\n# comment\nrest_url http://x\n",
     "failed skipped skipped skipped skipped ok skipped", "line 4"},
    {"no_master_server", "host_name = cdp-host\nrest_url = {master}\nksqd_url = {master}\nbroker = {broker}\n",
     "failed skipped skipped skipped skipped ok ok", "server = <master host>"},
    {"master_does_not_resolve", "server = master.invalid\nhost_name = cdp-host\n",
     "ok failed skipped skipped skipped ok ok", "master.invalid does not resolve"},
    {"rest_down", "server = 127.0.0.1\nhost_name = cdp-host\nrest_url = {down}\nksqd_url = {master}\nbroker = {broker}\n",
     "ok ok failed ok ok ok ok", "rest_url"},
    {"rest_refuses_media_type",
     "server = 127.0.0.1\nhost_name = cdp-host\nrest_url = {other-release}\nksqd_url = {master}\nbroker = {broker}\n",
     "ok ok failed ok ok ok ok", "HTTP 406"},
    {"daemon_down", "server = 127.0.0.1\nhost_name = cdp-host\nrest_url = {master}\nksqd_url = {down}\nbroker = {broker}\n",
     "ok ok ok failed ok ok ok", "start the request daemon"},
    {"broker_down",
     "server = 127.0.0.1\nhost_name = cdp-host\nrest_url = {master}\nksqd_url = {master}\nbroker = 127.0.0.1:{down-port}\n",
     "ok ok ok ok failed ok ok", "start the broker"},
    {"all_well", kAllWell, "ok ok ok ok ok ok ok", nullptr},
};

struct DoctorRun {
  int exitStatus = -1;
  std::string output;
  double seconds = 0;
};

// What every case of the suite shares besides the configuration and log
// files (standin_environment.h), which the doctor finds through the
// environment it inherits: a master simulator, one of another release
// (another jobs media type), a broker, and a loopback port where nothing
// listens.
struct Surroundings {
  master_sim::MasterSimulator master;
  master_sim::MasterSimulator otherReleaseMaster{[] {
    master_sim::MasterSimulatorOptions otherRelease;
    otherRelease.jobsMediaType = "application/vnd.keepstone+json;version=7.0";
    return otherRelease;
  }()};
  testbed::MosquittoBroker broker;
  const int downPort = testbed::freeLoopbackPort();
};

class DoctorTest : public ::testing::TestWithParam<DoctorCase> {
 protected:
  static void SetUpTestSuite() {
    at_ = new Surroundings;
    ASSERT_TRUE(at_->master.start());
    ASSERT_TRUE(at_->otherReleaseMaster.start());
  }
  static void TearDownTestSuite() { delete at_; }

  static void writeConfig(std::string text) {
    const std::string down = "127.0.0.1:" + std::to_string(at_->downPort);
    const std::pair<std::string, std::string> placeholders[] = {
        {"{master}", at_->master.url()},    {"{other-release}", at_->otherReleaseMaster.url()},
        {"{down}", "http://" + down},       {"{down-port}", std::to_string(at_->downPort)},
        {"{broker}", at_->broker.address()}};
    for (const auto& [name, value] : placeholders) {
      for (size_t at = text.find(name); at != std::string::npos; at = text.find(name)) text.replace(at, name.size(), value);
    }
    integration::writeConfig(text + "outbox = " + integration::scratchPath("outbox.db") + "\n");
  }

  static DoctorRun runDoctor(const std::string& arguments) {
    DoctorRun run;
    const auto started = std::chrono::steady_clock::now();
    FILE* pipe = popen((KSCDP_DOCTOR_PATH " " + arguments).c_str(), "r");
    if (pipe == nullptr) return run;
    char buffer[4096];
    for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) run.output.append(buffer, got);
    const int status = pclose(pipe);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    run.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
  }

  static Surroundings* at_;
};

Surroundings* DoctorTest::at_ = nullptr;

TEST_P(DoctorTest, NamesTheBrokenLinkAndStartsNoBackup) {
  const DoctorCase& test = GetParam();
  if (test.config != nullptr) {
    writeConfig(test.config);
  } else {
    integration::removeConfig();
  }
  const DoctorRun run = runDoctor("--json");
  EXPECT_LT(run.seconds, 10.0);

  const std::unique_ptr<json_t, void (*)(json_t*)> document(json_loads(run.output.c_str(), 0, nullptr), json_decref);
  ASSERT_NE(document, nullptr) << run.output;
  json_t* checks = json_object_get(document.get(), "checks");
  std::string ids, statuses, firstFailure;
  for (size_t i = 0; i < json_array_size(checks); ++i) {
    json_t* check = json_array_get(checks, i);
    const std::string status = json_string_value(json_object_get(check, "status"));
    ids += (i == 0 ? "" : " ") + std::string(json_string_value(json_object_get(check, "id")));
    statuses += (i == 0 ? "" : " ") + status;
    // Every warning and failure says what to do.
    EXPECT_EQ(json_object_get(check, "action") != nullptr, status == "failed" || status == "warning") << run.output;
    if (status == "failed" && firstFailure.empty()) {
      firstFailure = std::string(json_string_value(json_object_get(check, "detail"))) + " " +
                     json_string_value(json_object_get(check, "action"));
    }
  }
  EXPECT_EQ(ids, kCheckIds);
  EXPECT_EQ(statuses, test.statuses) << run.output;
  const bool failed = test.namesProblem != nullptr;
  EXPECT_EQ(run.exitStatus, failed ? 1 : 0);
  EXPECT_EQ(json_is_true(json_object_get(document.get(), "ok")), !failed);
  if (failed) {
    EXPECT_NE(firstFailure.find(test.namesProblem), std::string::npos) << firstFailure;
  }

  for (const master_sim::RecordedRequest& request : at_->master.requests()) EXPECT_EQ(request.method, "GET");
}

INSTANTIATE_TEST_SUITE_P(Links, DoctorTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<DoctorCase>& info) { return std::string(info.param.name); });

// Asked for, the test alert reaches a subscriber, and the text report has one
// line per check.
TEST_F(DoctorTest, SendsOneTestAlertWhenAsked) {
  testbed::MqttSubscriber subscriber(at_->broker.port(), "keepstone/notifications");
  writeConfig(kAllWell);
  const DoctorRun run = runDoctor("--send-test-alert");
  EXPECT_EQ(run.exitStatus, 0) << run.output;
  EXPECT_NE(run.output.find("ok       test alert: "), std::string::npos) << run.output;
  EXPECT_EQ(std::count(run.output.begin(), run.output.end(), '\n'), 7 + 1);  // a line per check, and the alert
  const auto messages = subscriber.waitForCount(1, std::chrono::seconds(5));
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_NE(messages[0].find("\"messageKey\":\"KSCDP_DOCTOR_TEST_ALERT\""), std::string::npos) << messages[0];
  EXPECT_NE(messages[0].find("\"server\":\"cdp-host\""), std::string::npos) << messages[0];
}

TEST_F(DoctorTest, UnknownArgumentIsBadUsage) { EXPECT_EQ(runDoctor("--no-such-option 2>/dev/null").exitStatus, 2); }

}  // namespace
