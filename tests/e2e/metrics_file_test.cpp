// The metrics file of an engine's process, read with the Prometheus client's
// own parser (programs/read_metrics.py): the counts of a known run with the
// broker up, and the alerts that wait with the broker away.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "engine_library.h"
#include "master_sim/MasterSimulator.h"
#include "mosquitto_broker.h"
#include "mqtt_subscriber.h"
#include "program_run.h"
#include "standin_environment.h"

namespace {

const char kTopic[] = "keepstone/notifications";
const std::chrono::seconds kDeliveryTimeout(60);

// Every sample of the file, `name{label="value",...}` (labels sorted) to its value.
using Samples = std::map<std::string, double>;

Samples readMetrics(const std::string& path) {
  const integration::ProgramRun run =
      integration::runProgram("/usr/bin/python3 " KSCDP_E2E_PROGRAMS_DIR "/read_metrics.py " + path);
  EXPECT_EQ(run.exitStatus, 0) << "the Prometheus client cannot read " << path;
  Samples samples;
  std::istringstream lines(run.output);
  std::string name;
  double value = 0;
  while (lines >> name >> value) samples[name] = value;
  return samples;
}

std::string vmId(int n) {
  char id[33];
  std::snprintf(id, sizeof id, "%032x", n);
  return id;
}

class MetricsFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(m_library.load(KSCDP_LIBRARY_PATH, error)) << error;
    ASSERT_TRUE(m_master.start());
    std::filesystem::remove_all(m_directory);
    std::filesystem::create_directories(m_directory);
    integration::writeConfig("server = 127.0.0.1\nhost_name = cdp-e2e\nrest_url = " + m_master.url() + "\nksqd_url = " +
                             m_master.url() + "\nbroker = " + m_broker.address() + "\noutbox = " + m_directory +
                             "/outbox.db\nmetrics_file = " + m_file + "\nmetrics_interval = 1\n");
  }

  void TearDown() override {
    m_library.stop_alert_thread();
    m_library.unload();
  }

  // The metrics file, and nothing else, is left beside the outbox.
  void expectOnlyTheFileLeft() {
    struct stat status;
    ASSERT_EQ(stat(m_file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777 & ~0644, 0u);
    for (const auto& entry : std::filesystem::directory_iterator(m_directory)) {
      const std::string name = entry.path().filename();
      EXPECT_TRUE(name == "metrics.prom" || name.rfind("outbox.db", 0) == 0) << name;
    }
  }

  EngineLibrary m_library;
  testbed::MosquittoBroker m_broker;
  testbed::MqttSubscriber m_subscriber{m_broker.port(), kTopic};
  master_sim::MasterSimulator m_master;
  const std::string m_directory = integration::scratchPath("metrics");
  const std::string m_file = m_directory + "/metrics.prom";
};

// Three eviction passes (two VMs requested, one refused by the daemon), a
// poll and 50 alerts: every alert the broker received is raised and
// delivered, none waits, and the HTTP counts are the simulator's.
TEST_F(MetricsFileTest, CountsOfARunWithTheBrokerUp) {
  master_sim::PolicyFaults refusal;
  refusal.httpStatus = 503;
  m_master.setPolicyFaults("refused", refusal);
  evict_vm_info vms[3] = {};
  evict_vm_list* evictList = nullptr;
  vm_node_list* requested = nullptr;
  ASSERT_EQ(m_library.initialize_evlist(&evictList, 3), 0);
  for (int i = 0; i < 3; ++i) {
    std::snprintf(vms[i].vm_id, sizeof vms[i].vm_id, "%s", vmId(i + 1).c_str());
    std::snprintf(vms[i].policy_name, sizeof vms[i].policy_name, "%s", i == 2 ? "refused" : "policy");
    vms[i].vm_size = static_cast<uint64_t>(30 - 10 * i);
    ASSERT_EQ(m_library.insert_vm_into_evlist(evictList, &vms[i]), 0);
  }
  ASSERT_EQ(m_library.call_evict_data(3, evictList, &requested), 0);
  ASSERT_EQ(m_library.call_check_eviction_progress(2, &requested), 0);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(m_library.raise_backup_alert(vmId(100 + i).c_str(), 501, ""), 0);
  ASSERT_EQ(m_library.stop_alert_thread(), 0);
  m_library.delete_from_vm_list(&requested);
  m_library.delete_evlist(evictList);

  const size_t alerts = 50 + 2 + 1;  // the 50, two evictions started, one failed
  const size_t received = m_subscriber.waitForCount(alerts, kDeliveryTimeout).size();
  EXPECT_EQ(received, alerts);
  // The simulator answers every request 2xx but those for the refused policy.
  size_t accepted = 0;
  size_t refused = 0;
  size_t polls = 0;
  for (const master_sim::RecordedRequest& request : m_master.requests()) {
    if (request.method != "POST") ++polls;
    if (request.method == "POST") ++(request.body.find("refused") != std::string::npos ? refused : accepted);
  }
  EXPECT_EQ(accepted, 2u);
  EXPECT_EQ(refused, 1u);
  EXPECT_EQ(polls, 2u);

  Samples metrics = readMetrics(m_file);
  EXPECT_EQ(metrics["kscdp_alerts_raised_total{}"], received);
  EXPECT_EQ(metrics["kscdp_alerts_delivered_total{}"], received);
  EXPECT_EQ(metrics["kscdp_alert_delivery_seconds_count{}"], received);
  EXPECT_EQ(metrics["kscdp_alert_delivery_seconds_bucket{le=\"+Inf\"}"], received);
  EXPECT_EQ(metrics["kscdp_alerts_waiting{}"], 0);
  EXPECT_EQ(metrics["kscdp_alert_oldest_waiting_seconds{}"], 0);
  EXPECT_EQ(metrics.count("kscdp_broker_connected{broker=\"" + m_broker.address() + "\"}"), 1u);
  EXPECT_EQ(metrics["kscdp_broker_switches_total{}"], 0);
  EXPECT_EQ(metrics["kscdp_http_requests_total{outcome=\"2xx\",service=\"daemon\"}"], accepted);
  EXPECT_EQ(metrics["kscdp_http_requests_total{outcome=\"5xx\",service=\"daemon\"}"], refused);
  EXPECT_EQ(metrics["kscdp_http_requests_total{outcome=\"2xx\",service=\"jobs\"}"], polls);
  EXPECT_EQ(metrics["kscdp_http_requests_total{outcome=\"error\",service=\"jobs\"}"], 0);
  EXPECT_EQ(metrics["kscdp_http_request_duration_seconds_count{service=\"daemon\"}"], accepted + refused);
  EXPECT_EQ(metrics["kscdp_http_request_duration_seconds_count{service=\"jobs\"}"], polls);
  EXPECT_EQ(metrics["kscdp_evictions_requested_total{}"], 2);
  EXPECT_EQ(metrics["kscdp_eviction_passes_failed_total{}"], 1);
  EXPECT_EQ(metrics["kscdp_build_info{version=\"" KSCDP_VERSION "\"}"], 1);
  EXPECT_GT(metrics["kscdp_outbox_bytes{}"], 0);
  expectOnlyTheFileLeft();
}

// With the broker away, the alerts wait, and the file says how many and since
// when: while the publisher runs, and after its stop, in the outbox.
TEST_F(MetricsFileTest, WaitingAlertsWithTheBrokerAway) {
  m_broker.stop();
  for (int i = 0; i < 40; ++i) ASSERT_EQ(m_library.raise_backup_alert(vmId(200 + i).c_str(), 501, ""), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // two rewrites at least
  Samples running = readMetrics(m_file);
  EXPECT_EQ(running["kscdp_alerts_raised_total{}"], 40);
  EXPECT_EQ(running["kscdp_alerts_delivered_total{}"], 0);
  EXPECT_EQ(running["kscdp_alerts_waiting{}"], 40);
  EXPECT_GE(running["kscdp_alert_oldest_waiting_seconds{}"], 1.0);
  EXPECT_LT(running["kscdp_alert_oldest_waiting_seconds{}"], 30.0);
  EXPECT_EQ(running["kscdp_broker_connected{broker=\"" + m_broker.address() + "\"}"], 0);
  EXPECT_EQ(running["kscdp_metrics_rewrite_seconds{}"], 1);

  ASSERT_EQ(m_library.stop_alert_thread(), 0);
  Samples stopped = readMetrics(m_file);
  EXPECT_EQ(stopped["kscdp_metrics_rewrite_seconds{}"], 0);  // no publisher: the file stays as it is
  EXPECT_EQ(stopped["kscdp_alerts_waiting{}"], 40);
  EXPECT_GE(stopped["kscdp_alert_oldest_waiting_seconds{}"], running["kscdp_alert_oldest_waiting_seconds{}"]);
  EXPECT_GT(stopped["kscdp_outbox_bytes{}"], 0);
  expectOnlyTheFileLeft();
}

// A publisher that loses its broker and reaches the next of the list counts
// one switch, and names the broker it is connected to.
TEST_F(MetricsFileTest, ASwitchToTheNextBrokerIsCounted) {
  testbed::MosquittoBroker second;
  testbed::MqttSubscriber secondSubscriber{second.port(), kTopic};
  integration::writeConfig("server = 127.0.0.1\nhost_name = cdp-e2e\nbroker = " + m_broker.address() + ", " +
                           second.address() + "\noutbox = none\nmetrics_file = " + m_file + "\nmetrics_interval = 1\n");
  ASSERT_EQ(m_library.raise_backup_alert(vmId(400).c_str(), 501, ""), 0);
  ASSERT_EQ(m_subscriber.waitForCount(1, kDeliveryTimeout).size(), 1u);
  m_broker.stop();
  ASSERT_EQ(m_library.raise_backup_alert(vmId(401).c_str(), 501, ""), 0);
  ASSERT_EQ(secondSubscriber.waitForCount(1, kDeliveryTimeout).size(), 1u);
  ASSERT_EQ(m_library.stop_alert_thread(), 0);
  Samples metrics = readMetrics(m_file);
  EXPECT_EQ(metrics["kscdp_broker_switches_total{}"], 1);
  EXPECT_EQ(metrics.count("kscdp_broker_connected{broker=\"" + second.address() + "\"}"), 1u);
}

// A file that cannot be written is said once in the log, with what to do,
// however many rewrites fail; alerts flow as ever.
TEST_F(MetricsFileTest, AFileThatCannotBeWrittenIsLoggedOnce) {
  const std::string unwritable = m_directory + "/no-such-directory/kscdp.prom";
  integration::writeConfig("server = 127.0.0.1\nhost_name = cdp-e2e\nbroker = " + m_broker.address() +
                           "\noutbox = none\nmetrics_file = " + unwritable + "\nmetrics_interval = 1\n");
  const size_t logStart = integration::logText().size();
  ASSERT_EQ(m_library.raise_backup_alert(vmId(300).c_str(), 501, ""), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // three rewrites at least
  ASSERT_EQ(m_library.stop_alert_thread(), 0);
  EXPECT_EQ(m_subscriber.waitForCount(1, kDeliveryTimeout).size(), 1u);
  const std::string log = integration::logText().substr(logStart);
  const std::string line = " 16 metrics_file: cannot write " + unwritable +
                           ": No such file or directory; make its directory writable by the engine's user, or "
                           "change metrics_file\n";
  const size_t first = log.find(line);
  EXPECT_NE(first, std::string::npos) << log;
  EXPECT_EQ(log.find(line, first + 1), std::string::npos) << log;
}

}  // namespace
