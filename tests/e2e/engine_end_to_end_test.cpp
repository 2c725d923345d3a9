// The engine's four calls through the real libkscdp.so, loaded with dlopen as
// the engine loads it, against the master simulator and a mosquitto broker on
// loopback: from one thread, and from eight at once.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "engine_library.h"
#include "master_sim/MasterSimulator.h"
#include "mosquitto_broker.h"
#include "mqtt_subscriber.h"
#include "standin_environment.h"

namespace {

using Clock = std::chrono::steady_clock;

const char kTopic[] = "keepstone/notifications";
const std::chrono::seconds kDeliveryTimeout(60);

// The wire form of an alert as a subscriber sees it; `attributes` is the
// inside of the attributes object.
std::string alertPayload(const std::string& key, const char* priority, const char* severity,
                         const std::string& attributes) {
  return std::string(R"({"version":1,"producerType":"Keepstone","producerSubType":"CDP",)") +
         R"("notificationType":"CDP Backup Engine","priority":")" + priority + R"(","severity":")" + severity +
         R"(","messageKey":")" + key + R"(","attributes":{)" + attributes + "}}";
}

// Eight engine threads: each evicts lists of its own, polls them until every
// VM is done and raises codes 501 to 504 for its four VMs; one of them stops
// the alert thread now and then.
const int kThreads = 8;
const int kVmsPerRound = 4;
const std::chrono::seconds kBusyFor(3);
const std::chrono::seconds kRoundTimeout(20);
const char* const kKeys[] = {"fullsync.started", "fullsync.resumed", "fullsync.done", "fullsync.suspended"};

// What the threads did; gtest's assertions report their failures.
struct Outcome {
  std::mutex mutex;
  std::set<std::string> alerts;  // every payload the engine's calls should have published
  std::vector<uint64_t> jobIds;  // of every VM reported done
};

void engineThread(const EngineLibrary& library, int thread, Clock::time_point until, Outcome& outcome) {
  for (int round = 0; Clock::now() < until; ++round) {
    evict_vm_info vms[kVmsPerRound] = {};
    evict_vm_list* evictList = nullptr;
    vm_node_list* requested = nullptr;
    ASSERT_EQ(library.initialize_evlist(&evictList, kVmsPerRound), 0);
    for (int i = 0; i < kVmsPerRound; ++i) {
      std::snprintf(vms[i].vm_id, sizeof vms[i].vm_id, "%08x%08x%016x", thread, round, i);
      std::snprintf(vms[i].policy_name, sizeof vms[i].policy_name, "policy-%d", thread);
      vms[i].vm_size = static_cast<uint64_t>(i + 1);
      library.insert_vm_into_evlist(evictList, &vms[i]);
    }
    EXPECT_EQ(library.call_evict_data(kVmsPerRound, evictList, &requested), 0);
    const auto allDone = [&vms] {
      return std::all_of(std::begin(vms), std::end(vms), [](const evict_vm_info& vm) { return vm.evict_state == 2; });
    };
    for (const Clock::time_point giveUp = Clock::now() + kRoundTimeout; !allDone() && Clock::now() < giveUp;) {
      EXPECT_EQ(library.call_check_eviction_progress(kVmsPerRound, &requested), 0);
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_TRUE(allDone()) << "thread " << thread;

    std::vector<std::string> alerts;
    for (int i = 0; i < kVmsPerRound; ++i) {
      const std::string id = vms[i].vm_id;
      library.raise_backup_alert(vms[i].vm_id, 501 + i, "");
      const std::string uuid = R"("uuid":")" + id.substr(0, 8) + "-" + id.substr(8, 4) + "-" + id.substr(12, 4) + "-" +
                               id.substr(16, 4) + "-" + id.substr(20) + "\"";
      alerts.push_back(alertPayload(std::string("eventlog.omra.ksu.cdp.") + kKeys[i], "LOW", "INFO",
                                    R"("server":"cdp-e2e",)" + uuid));
      alerts.push_back(
          alertPayload("eventlog.omra.ksu.cdp.eviction.start", "LOW", "INFO",
                       R"("jobid":")" + std::to_string(vms[i].job_id) + R"(","server":"cdp-e2e",)" + uuid));
    }
    if (thread == 0 && round % 2 == 0) library.stop_alert_thread();
    library.delete_from_vm_list(&requested);
    library.delete_evlist(evictList);
    std::lock_guard<std::mutex> lock(outcome.mutex);
    outcome.alerts.insert(alerts.begin(), alerts.end());
    for (const evict_vm_info& vm : vms) outcome.jobIds.push_back(vm.job_id);
  }
}

class EngineEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(m_library.load(KSCDP_LIBRARY_PATH, error)) << error;
    ASSERT_TRUE(m_master.start());
    integration::writeConfig("server = 127.0.0.1\nhost_name = cdp-e2e\nrest_url = " + m_master.url() +
                             "\nksqd_url = " + m_master.url() + "\nbroker = " + m_broker.address() +
                             "\noutbox = " + integration::scratchPath("e2e-outbox.db") + "\n");
  }

  void TearDown() override {
    m_library.stop_alert_thread();
    m_library.delete_from_vm_list(&m_requested);
    m_library.delete_evlist(m_evictList);
    m_library.unload();
  }

  EngineLibrary m_library;
  testbed::MosquittoBroker m_broker;
  testbed::MqttSubscriber m_subscriber{m_broker.port(), kTopic};
  master_sim::MasterSimulator m_master;
  evict_vm_info m_vms[3] = {};
  evict_vm_list* m_evictList = nullptr;
  vm_node_list* m_requested = nullptr;
};

TEST_F(EngineEndToEndTest, EvictsPollsUntilDoneAndPublishesEveryAlert) {
  EXPECT_EQ(std::string(m_library.release).substr(0, 16), "\n@(#) Keepstone_");  // what(1) finds the release
  master_sim::PolicyFaults refusal;
  refusal.httpStatus = 503;
  m_master.setPolicyFaults("policy-5", refusal);
  ASSERT_EQ(m_library.initialize_evlist(&m_evictList, 3), 0);
  const std::pair<const char*, uint64_t> named[] = {{"00000000000000000000000000000001", 10},
                                                    {"00000000000000000000000000000002", 20},
                                                    {"0123456789abcdef0123456789abcdef", 5}};  // the last one refused
  for (int i = 0; i < 3; ++i) {
    std::snprintf(m_vms[i].vm_id, sizeof m_vms[i].vm_id, "%s", named[i].first);
    std::snprintf(m_vms[i].policy_name, sizeof m_vms[i].policy_name, "policy-%d", static_cast<int>(named[i].second));
    m_vms[i].vm_size = named[i].second;
    ASSERT_EQ(m_library.insert_vm_into_evlist(m_evictList, &m_vms[i]), 0);
  }

  // Once read, an unchanged configuration file is looked at with stat() but
  // never opened again, however often the calls need its values.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // its times are then to be trusted
  ASSERT_EQ(m_library.call_evict_data(0, m_evictList, &m_requested), 0);
  EXPECT_TRUE(m_master.requests().empty());
  const int opens = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(inotify_add_watch(opens, std::getenv("KEEPSTONE_CONF"), IN_OPEN), 0);
  ASSERT_EQ(m_library.call_evict_data(3, m_evictList, &m_requested), 0);
  EXPECT_EQ(m_vms[1].job_id, 1000u);  // largest first
  EXPECT_EQ(m_vms[0].job_id, 1001u);
  EXPECT_EQ(m_vms[0].evict_state, 1);
  EXPECT_EQ(m_vms[2].evict_state, 0);  // refused: stays on the evict list
  EXPECT_EQ(m_evictList->count, 1);
  ASSERT_NE(m_requested, nullptr);  // the last one requested first
  EXPECT_EQ(m_requested->vm, &m_vms[0]);
  EXPECT_EQ(m_requested->next->vm, &m_vms[1]);

  ASSERT_EQ(m_library.call_check_eviction_progress(2, &m_requested), 0);
  EXPECT_EQ(m_vms[0].evict_state, 1);  // the jobs are still running
  m_master.advanceTime(2.0);
  ASSERT_EQ(m_library.call_check_eviction_progress(2, &m_requested), 0);
  EXPECT_EQ(m_vms[0].evict_state, 2);
  EXPECT_EQ(m_vms[1].evict_state, 2);
  inotify_event event;
  EXPECT_EQ(read(opens, &event, sizeof event), -1) << "the configuration file was opened";
  close(opens);

  // Requests to the daemon carry the policy as JSON and name the master;
  // polls send only the Accept media type besides what HTTP needs, all on
  // one connection.
  std::vector<std::string> requests;
  const std::string host = "127.0.0.1:" + std::to_string(m_master.port());
  const std::vector<master_sim::RecordedRequest> seen = m_master.requests();
  for (const master_sim::RecordedRequest& request : seen) {
    requests.push_back(request.method + " " + request.path + " " + request.body);
    if (request.method == "POST") {
      EXPECT_EQ(request.headers,
                (std::map<std::string, std::string>{{"Accept", "*/*"},
                                                    {"Content-Length", std::to_string(request.body.size())},
                                                    {"Content-Type", "application/json"},
                                                    {"Host", host},
                                                    {"X-Keepstone-Master", "127.0.0.1"}}));
    } else {
      EXPECT_EQ(request.headers,
                (std::map<std::string, std::string>{{"Accept", keepstone_rest::kVersionedMediaType}, {"Host", host}}));
      EXPECT_EQ(request.remotePort, seen.back().remotePort);
    }
  }
  EXPECT_EQ(requests, (std::vector<std::string>{R"(POST /ksqd/1 {"policy": "policy-20"})",
                                                R"(POST /ksqd/1 {"policy": "policy-10"})",
                                                R"(POST /ksqd/1 {"policy": "policy-5"})",
                                                "GET /keepstone/admin/jobs/1001 ", "GET /keepstone/admin/jobs/1000 ",
                                                "GET /keepstone/admin/jobs/1001 ", "GET /keepstone/admin/jobs/1000 "}));

  EXPECT_EQ(m_library.raise_backup_alert(m_vms[1].vm_id, 45, ""), 0);
  EXPECT_EQ(m_library.stop_alert_thread(), 0);
  const std::string start = "eventlog.omra.ksu.cdp.eviction.start";
  const testbed::MqttSubscriber::Messages expected = {
      alertPayload(start, "LOW", "INFO",
                   R"("jobid":"1000","server":"cdp-e2e","uuid":"00000000-0000-0000-0000-000000000002")"),
      alertPayload(start, "LOW", "INFO",
                   R"("jobid":"1001","server":"cdp-e2e","uuid":"00000000-0000-0000-0000-000000000001")"),
      alertPayload("eventlog.omra.ksu.cdp.eviction.failed", "HIGH", "ERROR",
                   R"("server":"cdp-e2e","uuid":"01234567-89ab-cdef-0123-456789abcdef")"),
      alertPayload("eventlog.omra.ksu.cdp.storage.nospace", "HIGH", "CRITICAL", ""),
  };
  EXPECT_EQ(testbed::withoutRepeats(m_subscriber.waitForCount(expected.size(), kDeliveryTimeout)), expected);
}

// Every alert arrives, and every VM ends done with a job of its own.
TEST_F(EngineEndToEndTest, EightThreadsAtOnce) {
  Outcome outcome;
  const Clock::time_point until = Clock::now() + kBusyFor;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back(engineThread, std::cref(m_library), t, until, std::ref(outcome));
  }
  for (std::thread& thread : threads) thread.join();
  m_library.stop_alert_thread();

  EXPECT_EQ(std::set<uint64_t>(outcome.jobIds.begin(), outcome.jobIds.end()).size(), outcome.jobIds.size());
  size_t daemonRequests = 0;
  for (const master_sim::RecordedRequest& request : m_master.requests()) daemonRequests += request.method == "POST";
  EXPECT_EQ(daemonRequests, outcome.jobIds.size());
  EXPECT_GE(outcome.jobIds.size(), static_cast<size_t>(kThreads * kVmsPerRound));

  const auto received = m_subscriber.waitForDistinct(outcome.alerts.size(), kDeliveryTimeout);
  EXPECT_EQ(std::set<std::string>(received.begin(), received.end()), outcome.alerts);
}

}  // namespace
