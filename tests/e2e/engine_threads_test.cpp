// Eight engine threads at once through the real libkscdp.so, against the
// master simulator and a mosquitto broker: each thread evicts lists of its
// own, polls them until every VM is done and raises alerts for them, and one
// of them stops the alert thread now and then. Every alert must arrive and
// every VM must end done with a job of its own.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "alert_payload.h"
#include "engine_library.h"
#include "master_sim/MasterSimulator.h"
#include "mosquitto_broker.h"
#include "mqtt_subscriber.h"
#include "standin_environment.h"

namespace {

using Clock = std::chrono::steady_clock;

const int kThreads = 8;
const int kVmsPerRound = 4;
const std::chrono::seconds kBusyFor(3);
const std::chrono::seconds kRoundTimeout(20);
const std::chrono::seconds kDeliveryTimeout(60);
// Each round raises codes 501 to 504 for its four VMs.
const int kFirstAlertCode = 501;
const char* const kKeys[] = {"fullsync.started", "fullsync.resumed", "fullsync.done", "fullsync.suspended"};

// "01234567-89ab-..." from the 32 characters of a VM id.
std::string uuidOf(const std::string& id) {
  return id.substr(0, 8) + "-" + id.substr(8, 4) + "-" + id.substr(12, 4) + "-" + id.substr(16, 4) + "-" +
         id.substr(20);
}

struct Outcome {
  std::mutex mutex;
  std::set<std::string> alerts;  // every payload the engine's calls should have published
  std::vector<uint64_t> jobIds;  // of every VM reported done
  std::vector<std::string> failures;

  void fail(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    failures.push_back(what);
  }
};

// One engine thread: rounds of evict, poll until done, raise an alert per VM.
void engineThread(const EngineLibrary& library, int thread, Clock::time_point until, Outcome& outcome) {
  for (int round = 0; Clock::now() < until; ++round) {
    std::vector<evict_vm_info> vms(kVmsPerRound);
    evict_vm_list* evictList = nullptr;
    vm_node_list* requested = nullptr;
    if (library.initialize_evlist(&evictList, kVmsPerRound) != 0) return outcome.fail("initialize_evlist");
    for (int i = 0; i < kVmsPerRound; ++i) {
      evict_vm_info& vm = vms[i];
      std::memset(&vm, 0, sizeof vm);
      std::snprintf(vm.vm_id, sizeof vm.vm_id, "%08x%08x%016x", thread, round, i);
      std::snprintf(vm.policy_name, sizeof vm.policy_name, "policy-%d", thread);
      vm.vm_size = static_cast<uint64_t>(i + 1);
      library.insert_vm_into_evlist(evictList, &vm);
    }
    if (library.call_evict_data(kVmsPerRound, evictList, &requested) != 0) outcome.fail("call_evict_data");

    const Clock::time_point giveUp = Clock::now() + kRoundTimeout;
    bool allDone = false;
    while (!allDone && Clock::now() < giveUp) {
      if (library.call_check_eviction_progress(kVmsPerRound, &requested) != 0) outcome.fail("progress call");
      allDone = true;
      for (const evict_vm_info& vm : vms) allDone = allDone && vm.evict_state == 2;
      if (!allDone) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!allDone) outcome.fail("thread " + std::to_string(thread) + ": VMs not done in time");

    std::vector<std::string> alerts;
    for (int i = 0; i < kVmsPerRound; ++i) {
      const evict_vm_info& vm = vms[i];
      library.raise_backup_alert(vm.vm_id, kFirstAlertCode + i, "");
      const std::string uuid = R"("uuid":")" + uuidOf(vm.vm_id) + "\"";
      alerts.push_back(alertPayload(std::string("eventlog.omra.ksu.cdp.") + kKeys[i], "LOW", "INFO",
                                    R"("server":"cdp-threads",)" + uuid));
      alerts.push_back(alertPayload("eventlog.omra.ksu.cdp.eviction.start", "LOW", "INFO",
                                    R"("jobid":")" + std::to_string(vm.job_id) + R"(","server":"cdp-threads",)" +
                                        uuid));
    }
    if (thread == 0 && round % 2 == 0) library.stop_alert_thread();

    library.delete_from_vm_list(&requested);
    library.delete_evlist(evictList);
    std::lock_guard<std::mutex> lock(outcome.mutex);
    outcome.alerts.insert(alerts.begin(), alerts.end());
    for (const evict_vm_info& vm : vms) outcome.jobIds.push_back(vm.job_id);
  }
}

TEST(EngineThreads, EveryAlertArrivesAndEveryVmIsDoneWithAJobOfItsOwn) {
  EngineLibrary library;
  std::string error;
  ASSERT_TRUE(library.load(KSCDP_LIBRARY_PATH, error)) << error;
  testbed::MosquittoBroker broker;
  testbed::MqttSubscriber subscriber(broker.port(), "keepstone/notifications");
  master_sim::MasterSimulatorOptions options;
  options.jobSeconds = 0.2;
  master_sim::MasterSimulator master(options);
  ASSERT_TRUE(master.start());
  integration::writeConfig("server = 127.0.0.1\nhost_name = cdp-threads\nrest_url = " + master.url() +
                           "\nksqd_url = " + master.url() + "\nbroker = " + broker.address() +
                           "\noutbox = " + integration::scratchPath("threads-outbox.db") + "\n");

  Outcome outcome;
  const Clock::time_point until = Clock::now() + kBusyFor;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back(engineThread, std::cref(library), t, until, std::ref(outcome));
  }
  for (std::thread& thread : threads) thread.join();
  library.stop_alert_thread();

  EXPECT_EQ(outcome.failures, std::vector<std::string>{});
  EXPECT_EQ(std::set<uint64_t>(outcome.jobIds.begin(), outcome.jobIds.end()).size(), outcome.jobIds.size());
  size_t daemonRequests = 0;
  for (const master_sim::RecordedRequest& request : master.requests()) daemonRequests += request.method == "POST";
  EXPECT_EQ(daemonRequests, outcome.jobIds.size());

  const testbed::MqttSubscriber::Messages received = subscriber.waitUntil(
      [&](const testbed::MqttSubscriber::Messages& messages) {
        return std::set<std::string>(messages.begin(), messages.end()).size() >= outcome.alerts.size();
      },
      kDeliveryTimeout);
  const std::set<std::string> distinct(received.begin(), received.end());
  EXPECT_EQ(distinct, outcome.alerts);
  EXPECT_GE(outcome.jobIds.size(), static_cast<size_t>(kThreads * kVmsPerRound));
  library.unload();
}

}  // namespace
