// The engine's four calls through the gateway, over the fake platform.
#include <gtest/gtest.h>
#include <kscdp/backup_engine.h>

#include <chrono>
#include <cstring>
#include <deque>
#include <future>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "case_table.h"
#include "fake_platform.h"

namespace {

using Attributes = std::map<std::string, std::string>;

const char kEvictionLog[] = "KeepstoneServiceGateway::requestEviction";

class EngineCallsTest : public ::testing::Test {
 public:
  void SetUp() override { fake::resetPlatform(); }
  void TearDown() override {
    delete_from_vm_list(&m_requested);
    delete_evlist(m_evictList);
    m_evictList = nullptr;
    m_vms.clear();
    stop_alert_thread();
    EXPECT_EQ(fake::curl.live, 0);
  }

  // Builds the evict list from VMs of these sizes, named vm<size>, with the
  // policy policy<size>.
  void evictList(const std::vector<uint64_t>& sizes) {
    ASSERT_EQ(initialize_evlist(&m_evictList, static_cast<int>(sizes.size())), 0);
    for (uint64_t size : sizes) {
      evict_vm_info& vm = m_vms.emplace_back();
      std::memset(&vm, 0, sizeof vm);
      vm.vm_size = size;
      vm.evict_type = 3;
      std::snprintf(vm.vm_id, sizeof vm.vm_id, "vm%llu", static_cast<unsigned long long>(size));
      std::snprintf(vm.policy_name, sizeof vm.policy_name, "policy%llu", static_cast<unsigned long long>(size));
      ASSERT_EQ(insert_vm_into_evlist(m_evictList, &vm), 0);
    }
  }

  // "<size>:<evict_state>:<job_id>" of each VM, in the order they were listed.
  std::string vmStates() const {
    std::string text;
    for (const evict_vm_info& vm : m_vms) {
      text += (text.empty() ? "" : " ") + std::to_string(vm.vm_size) + ":" + std::to_string(vm.evict_state) + ":" +
              std::to_string(vm.job_id);
    }
    return text;
  }

  // The one line an entry function logged for the failure it contained
  // since the last check is "<function>: Exception occured: <message>".
  void expectContained(const std::string& function, const std::string& message) {
    std::vector<std::string> contained;
    for (const fake::LogLine& line : fake::logLines) {
      if (line.message.rfind("Exception occured: ", 0) == 0) contained.push_back(line.function + ": " + line.message);
    }
    EXPECT_EQ(contained, std::vector<std::string>{function + ": Exception occured: " + message});
    fake::logLines.clear();
  }

  // Answers the polls with these job states.
  void pollWithStates(const std::vector<std::string>& states, int nodes) {
    for (const std::string& state : states) {
      fake::curl.answers.push_back({200, R"({"data":{"attributes":{"state":")" + state + R"(","status":0}}})", {}, {}});
    }
    EXPECT_EQ(call_check_eviction_progress(nodes, &m_requested), 0);
  }

  std::deque<evict_vm_info> m_vms;
  evict_vm_list* m_evictList = nullptr;
  vm_node_list* m_requested = nullptr;
};

TEST_F(EngineCallsTest, FailingVmStaysOnTopForEveryPass) {
  evictList({10, 30, 20});
  fake::ksqd.result = 5;

  EXPECT_EQ(call_evict_data(3, m_evictList, &m_requested), 0);

  EXPECT_EQ(fake::ksqd.calls, std::vector<std::string>(3, R"(master.example 1 {"policy": "policy30"})"));
  EXPECT_EQ(vmStates(), "10:0:0 30:0:0 20:0:0");
  EXPECT_EQ(m_evictList->count, 3);
  EXPECT_EQ(get_element_from_evlist(m_evictList), &m_vms[1]);  // the VM of size 30
  EXPECT_EQ(m_requested, nullptr);
  ASSERT_EQ(fake::notifications.sent.size(), 3u);
  EXPECT_EQ(fake::notifications.constructed, 1);  // one publisher for every alert
  for (const NotificationEvent& sent : fake::notifications.sent) {
    EXPECT_EQ(sent.messageKey + " " + sent.attributes.at("uuid"), "eventlog.omra.ksu.cdp.eviction.failed vm30");
  }
  // Each pass logs the VM, then the same text with the failure appended.
  const std::vector<fake::LogLine> passes = fake::logLinesOf(kEvictionLog);
  const std::string vm30 = "VM: vm30\nPolicy: policy30\nVM Size: 30\nEviction Type: 3\nMaster server: master.example";
  ASSERT_EQ(passes.size(), 6u);
  EXPECT_EQ(passes[4], (fake::LogLine{16, kEvictionLog, vm30}));
  EXPECT_EQ(passes[5], (fake::LogLine{16, kEvictionLog,
                                      vm30 + "Exception occured: Failed to invoke Ksqd CCT request. Return code:5"}));
}

// The requested list's node is taken before the request: without one, no
// backup starts that the engine could not find.
TEST_F(EngineCallsTest, NoMemoryForARequestedNodeFailsThePassBeforeAnyRequest) {
  evictList({10, 20});
  fake::allocator.failAt = 1;  // the next block: the node
  EXPECT_EQ(call_evict_data(1, m_evictList, &m_requested), 0);
  EXPECT_TRUE(fake::ksqd.calls.empty());
  EXPECT_EQ(get_element_from_evlist(m_evictList), &m_vms[1]);
  EXPECT_EQ(m_requested, nullptr);
  ASSERT_EQ(fake::notifications.sent.size(), 1u);
  EXPECT_EQ(fake::notifications.sent[0].messageKey, "eventlog.omra.ksu.cdp.eviction.failed");
}

// Once the daemon has answered with a job id, the VM is requested whatever
// fails after: here no log line can be written from then on, nor, with it,
// the eviction alert raised.
TEST_F(EngineCallsTest, NothingFailingAfterTheDaemonsAnswerLosesTheVm) {
  evictList({10, 20});
  fake::ksqd.answer = R"({"jobid": -1})";  // the longest id there is
  fake::ksqd.whenAnswering = [] { fake::logFails = true; };
  EXPECT_EQ(call_evict_data(1, m_evictList, &m_requested), KSCDP_ERR_INTERNAL);  // the alert's failure
  fake::logFails = false;
  ASSERT_NE(m_requested, nullptr);
  EXPECT_EQ(m_requested->vm, &m_vms[1]);
  EXPECT_EQ(vmStates(), "10:0:0 20:1:18446744073709551615");
  EXPECT_EQ(m_evictList->count, 1);
}

// A daemon that accepted the request but whose answer cannot be read fails
// the pass with the system's text, nothing after the code; a line of its own
// says that a backup may have started for the VM.
TEST_F(EngineCallsTest, AnAcceptedRequestWithoutAReadableAnswerSaysABackupMayHaveStarted) {
  evictList({10, 20});
  fake::ksqd.result = 200;
  EXPECT_EQ(call_evict_data(1, m_evictList, &m_requested), 0);
  EXPECT_EQ(m_requested, nullptr);
  EXPECT_EQ(get_element_from_evlist(m_evictList), &m_vms[1]);
  EXPECT_EQ(fake::logLinesOf(kEvictionLog).back().message,
            "VM: vm20\nPolicy: policy20\nVM Size: 20\nEviction Type: 3\nMaster server: master.example"
            "Exception occured: Failed to invoke Ksqd CCT request. Return code:200");
  const std::vector<fake::LogLine> handler = fake::logLinesOf("BackupServiceImpl::handleRequest");
  ASSERT_FALSE(handler.empty());
  EXPECT_EQ(handler.back(),
            (fake::LogLine{16, "BackupServiceImpl::handleRequest",
                           "the request daemon accepted the request, so a backup may have started for VM vm20 (its "
                           "status 200)"}));
}

TEST_F(EngineCallsTest, UnreadableMasterNameFailsEachPassWithoutAVm) {
  evictList({10, 20});
  fake::config.readResult = 2;
  fake::config.successfulReadsFirst = 1;  // the backup handler's own read

  EXPECT_EQ(call_evict_data(2, m_evictList, &m_requested), 0);

  EXPECT_TRUE(fake::ksqd.calls.empty());
  const std::vector<fake::LogLine> passes = fake::logLinesOf(kEvictionLog);
  ASSERT_EQ(passes.size(), 2u);
  EXPECT_EQ(passes[0].message,
            "VM: vm20\nPolicy: policy20\nVM Size: 20\nEviction Type: 3"
            "Exception occured: Failed to read master server hostname from Keepstone configuration file");
  ASSERT_EQ(fake::notifications.sent.size(), 2u);
  EXPECT_EQ(fake::notifications.sent[0].attributes, (Attributes{{"server", ""}, {"uuid", ""}}));
}

TEST_F(EngineCallsTest, ContainedFailuresReturnTheirCode) {
  EXPECT_EQ(call_check_eviction_progress(1, nullptr), 20);
  expectContained("call_check_eviction_progress", "Eviction list to check status is null");
  evictList({1});
  EXPECT_EQ(call_evict_data(2, m_evictList, &m_requested), 20);  // the one VM is requested, then none is left
  expectContained("call_evict_data", "Eviction list holds no VM for pass 2 of 2");
  EXPECT_EQ(call_evict_data(1, nullptr, &m_requested), 20);
  expectContained("call_evict_data", "Eviction list holds no VM for pass 1 of 1");
  EXPECT_EQ(call_evict_data(1, m_evictList, nullptr), 20);  // nowhere to put a requested VM
  expectContained("call_evict_data", "Requested VM list is null");

  fake::curl.requestThrows = std::make_exception_ptr(std::runtime_error("socket gone"));
  EXPECT_EQ(call_check_eviction_progress(1, &m_requested), -1);
  expectContained("call_check_eviction_progress", "socket gone");
  fake::curl.requestThrows = std::make_exception_ptr(42);  // not an exception class
  EXPECT_EQ(call_check_eviction_progress(1, &m_requested), -1);
  expectContained("call_check_eviction_progress", "unknown exception");
  fake::curl.requestThrows = nullptr;
  fake::curl.answers.push_back({500, "oops", {}, {}});
  EXPECT_EQ(call_check_eviction_progress(1, &m_requested), 130);
  expectContained("call_check_eviction_progress", "Could not parse Jobs API response message.");
  fake::config.hasServerList = false;
  EXPECT_EQ(call_check_eviction_progress(1, &m_requested), -1);
  expectContained("call_check_eviction_progress", "Failed to read master server from Keepstone configuration file");
  fake::config.readResult = 13;
  EXPECT_EQ(call_evict_data(1, m_evictList, &m_requested), 13);
  expectContained("call_evict_data", "Failed to read Keepstone configuration file");
}

TEST_F(EngineCallsTest, PollsAtMostTheGivenNumberOfNodesAndOnlyDoneExactlyIsDone) {
  evictList({1, 2, 3, 4, 5, 6});
  ASSERT_EQ(call_evict_data(6, m_evictList, &m_requested), 0);  // the requested list runs 1 to 6
  for (evict_vm_info& record : m_vms) record.evict_state = 7;
  pollWithStates({"DONE", "done", "DONE ", "", "ACTIVE"}, 5);
  EXPECT_EQ(vmStates(), "1:2:1 2:1:1 3:1:1 4:1:1 5:1:1 6:7:1");
  EXPECT_EQ(fake::curl.clients.at(0).requests, std::vector<std::string>{"get keepstone/admin/jobs/1"});
  pollWithStates(std::vector<std::string>(6, "DONE"), 9);
  EXPECT_EQ(m_vms[5].evict_state, 2);

  EXPECT_EQ(call_check_eviction_progress(0, &m_requested), 0);
  vm_node_list* empty = nullptr;
  EXPECT_EQ(call_check_eviction_progress(3, &empty), 0);
  EXPECT_EQ(fake::curl.clients.size(), 11u);
}

TEST_F(EngineCallsTest, AlertCodesSelectKeyLevelsAndAttributes) {
  const char uuid32[] = "0123456789abcdef0123456789abcdef";
  const Attributes vmAttributes{{"server", "cdp-host.example"}, {"uuid", "01234567-89ab-cdef-0123-456789abcdef"}};
  for (const cases::Row& c : cases::read("alert_codes.cases")) {
    SCOPED_TRACE(c[0]);
    fake::resetPlatform();
    EXPECT_EQ(raise_backup_alert(uuid32, std::stoi(c[0]), "12345"), 0);
    ASSERT_EQ(fake::notifications.sent.size(), 1u);
    const NotificationEvent& event = fake::notifications.sent[0];
    EXPECT_EQ(event.messageKey + " " + event.severity + " " + event.priority, c[1]);
    EXPECT_EQ(event.attributes, c[2] == "yes" ? vmAttributes : Attributes{});
    const char raiseAlert[] = "KeepstoneServiceGateway::raiseAlert";
    const std::string raising = "Raising alert for VM: " + std::string(uuid32) + ", bearing code: ";
    EXPECT_EQ(fake::logLinesOf(raiseAlert), std::vector<fake::LogLine>({{4, raiseAlert, raising + c[0]}}));
  }
}

TEST_F(EngineCallsTest, AlertFailuresNeverReachTheEngine) {
  fake::notifications.constructorThrows = true;
  EXPECT_EQ(raise_backup_alert("vm", 18, ""), 0);
  EXPECT_EQ(raise_backup_alert(nullptr, 18, ""), 0);
  EXPECT_EQ(raise_backup_alert("vm", 18, nullptr), 0);
  const std::vector<fake::LogLine> contained = fake::logLinesOf("raise_backup_alert");
  ASSERT_EQ(contained.size(), 3u);
  EXPECT_EQ(contained[0].level, 16);
  EXPECT_EQ(contained[1].message, "Exception occured: VM identifier is null");
  EXPECT_EQ(contained[2], (fake::LogLine{16, "raise_backup_alert", "Exception occured: Job id is null"}));

  fake::notifications.constructorThrows = false;
  EXPECT_EQ(raise_backup_alert("vm", 18, ""), 0);
  fake::notifications.shutdownThrows = true;
  EXPECT_EQ(stop_alert_thread(), 0);
  EXPECT_EQ(fake::logLinesOf("stop_alert_thread").back().level, 16);
  // A publisher whose shutdown failed is still there; the next stop ends it.
  fake::notifications.shutdownThrows = false;
  EXPECT_EQ(stop_alert_thread(), 0);
  EXPECT_EQ(std::make_pair(fake::notifications.shutDown, fake::notifications.destroyed), std::make_pair(1, 1));

  // Short of memory for the progress line, the stop still stops.
  EXPECT_EQ(raise_backup_alert("vm", 18, ""), 0);
  fake::logFails = true;
  EXPECT_EQ(stop_alert_thread(), 0);
  fake::logFails = false;
  EXPECT_EQ(std::make_pair(fake::notifications.shutDown, fake::notifications.destroyed), std::make_pair(2, 2));
}

// An alert that runs out of memory is raised again, three times in all; only
// the last failure is logged. Other failures are not tried again.
TEST_F(EngineCallsTest, AnAlertThatRunsOutOfMemoryIsRaisedAgain) {
  const struct {
    int allocationFailures;
    size_t sent;
    size_t contained;
  } cases[] = {{0, 1, 0}, {1, 1, 0}, {2, 1, 0}, {3, 0, 1}};
  for (const auto& c : cases) {
    fake::resetPlatform();
    int failuresLeft = c.allocationFailures;
    fake::notifications.whileSending = [&failuresLeft] {
      if (failuresLeft-- > 0) throw std::bad_alloc();
    };
    EXPECT_EQ(raise_backup_alert("vm", 18, ""), 0);
    EXPECT_EQ(fake::notifications.sent.size(), c.sent) << c.allocationFailures;
    const std::vector<fake::LogLine> contained = fake::logLinesOf("raise_backup_alert");
    ASSERT_EQ(contained.size(), c.contained) << c.allocationFailures;
    if (c.contained > 0) {
      EXPECT_EQ(contained[0].message, "Exception occured: std::bad_alloc");
    }
  }
  fake::resetPlatform();
  fake::notifications.sendThrows = true;
  EXPECT_EQ(raise_backup_alert("vm", 18, ""), 0);
  EXPECT_EQ(fake::logLinesOf("KeepstoneServiceGateway::raiseAlert").size(), 1u);
}

TEST_F(EngineCallsTest, StopAlertThreadLogsEveryTimeAndAlertsMakeANewPublisher) {
  EXPECT_EQ(stop_alert_thread(), 0);
  EXPECT_EQ(raise_backup_alert("vm", 501, ""), 0);
  EXPECT_EQ(stop_alert_thread(), 0);
  EXPECT_EQ(stop_alert_thread(), 0);
  EXPECT_EQ(raise_backup_alert("vm", 501, ""), 0);
  EXPECT_EQ(fake::notifications.constructed, 2);
  EXPECT_EQ(fake::notifications.shutDown, 1);
  const fake::LogLine stopping{4, "stop_alert_thread",
                               "Stopping Alert Service thread which publishes the events to master server's MQBroker"};
  EXPECT_EQ(fake::logLinesOf("stop_alert_thread"), std::vector<fake::LogLine>(3, stopping));
}

TEST_F(EngineCallsTest, StopAlertThreadWaitsForASendInProgress) {
  std::promise<void> sending;
  std::promise<void> release;
  fake::notifications.whileSending = [&, waiting = release.get_future().share()] {
    sending.set_value();
    waiting.wait();
  };
  std::thread alert([] { raise_backup_alert("vm", 501, ""); });
  sending.get_future().wait();
  std::future<int> stopped = std::async(std::launch::async, stop_alert_thread);
  EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  EXPECT_EQ(fake::notifications.shutDown, 0);
  release.set_value();
  alert.join();
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_EQ(fake::notifications.shutDown, 1);
}

}  // namespace
