// The engine's four calls through the gateway, over the fake platform.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/backup_engine.h"
#include "fake_platform.h"

namespace {

const char kUuid32[] = "0123456789abcdef0123456789abcdef";
const char kUuid36[] = "01234567-89ab-cdef-0123-456789abcdef";

class EngineCallsTest : public ::testing::Test {
 public:
  void SetUp() override { fake::resetPlatform(); }
  void TearDown() override {
    delete_from_vm_list(&requested_);
    delete_evlist(evictList_);
    evictList_ = nullptr;
    vms_.clear();
    stop_alert_thread();
    EXPECT_EQ(fake::liveCurlClients(), 0);
  }

  // Builds the evict list from VMs of these sizes, named vm<size>.
  void evictList(const std::vector<uint64_t>& sizes) {
    ASSERT_EQ(initialize_evlist(&evictList_, static_cast<int>(sizes.size())), 0);
    for (uint64_t size : sizes) {
      vms_.emplace_back();
      evict_vm_info& vm = vms_.back();
      std::memset(&vm, 0, sizeof vm);
      vm.vm_size = size;
      std::snprintf(vm.vm_id, sizeof vm.vm_id, "vm%llu", static_cast<unsigned long long>(size));
      std::snprintf(vm.policy_name, sizeof vm.policy_name, "policy%llu", static_cast<unsigned long long>(size));
      vm.evict_type = 3;
      ASSERT_EQ(insert_vm_into_evlist(evictList_, &vm), 0);
    }
  }

  evict_vm_info& vm(uint64_t size) {
    for (evict_vm_info& record : vms_) {
      if (record.vm_size == size) return record;
    }
    throw std::logic_error("no such VM");
  }

  std::vector<uint64_t> requestedSizes() const {
    std::vector<uint64_t> sizes;
    for (const vm_node_list* node = requested_; node != nullptr; node = node->next) sizes.push_back(node->vm->vm_size);
    return sizes;
  }

  // Requests the VMs' backups, then answers the polls with these states.
  void pollWithStates(const std::vector<std::string>& states, int nodes) {
    for (const std::string& state : states) {
      fake::curlScript().answers.push_back(
          {200, R"({"data":{"attributes":{"state":")" + state + R"(","status":0}}})", {}, {}});
    }
    EXPECT_EQ(call_check_eviction_progress(nodes, &requested_), 0);
  }

  std::deque<evict_vm_info> vms_;
  evict_vm_list* evictList_ = nullptr;
  vm_node_list* requested_ = nullptr;
};

TEST_F(EngineCallsTest, EvictsLargestFirstAndAlertsEachStart) {
  evictList({10, 30, 20});
  fake::ksqdScript().answers = {R"({"jobid": 7})", R"({"jobid": 8})", R"({"jobid": 9})"};

  EXPECT_EQ(call_evict_data(3, evictList_, &requested_), 0);

  ASSERT_EQ(fake::ksqdCalls().size(), 3u);
  EXPECT_EQ(fake::ksqdCalls()[0].request, R"({"policy": "policy30"})");
  EXPECT_EQ(fake::ksqdCalls()[0].masterServer, "master.example");
  EXPECT_EQ(fake::ksqdCalls()[0].kind, 1);
  EXPECT_EQ(vm(30).job_id, 7u);
  EXPECT_EQ(vm(20).job_id, 8u);
  EXPECT_EQ(vm(10).job_id, 9u);
  for (uint64_t size : {10, 20, 30}) EXPECT_EQ(vm(size).evict_state, 1);
  EXPECT_EQ(requestedSizes(), (std::vector<uint64_t>{10, 20, 30}));
  EXPECT_EQ(evictList_->count, 0);

  ASSERT_EQ(fake::sentNotifications().size(), 3u);
  const NotificationEvent& first = fake::sentNotifications()[0].event;
  EXPECT_EQ(first.messageKey, "eventlog.omra.ksu.cdp.eviction.start");
  EXPECT_EQ(first.attributes, (std::map<std::string, std::string>{
                                  {"jobid", "7"}, {"server", "cdp-host.example"}, {"uuid", "vm30"}}));
  EXPECT_EQ(fake::suppliersConstructed(), 1);

  const std::vector<fake::LogLine> passes = fake::logLinesOf("KeepstoneServiceGateway::requestEviction");
  ASSERT_EQ(passes.size(), 3u);
  EXPECT_EQ(passes[0], (fake::LogLine{16, "KeepstoneServiceGateway::requestEviction",
                                      "VM: vm30\nPolicy: policy30\nVM Size: 30\nEviction Type: 3\nMaster server: "
                                      "master.example"}));
}

TEST_F(EngineCallsTest, FailingVmStaysOnTopForEveryPass) {
  evictList({10, 30, 20});
  fake::ksqdScript().result = 5;

  EXPECT_EQ(call_evict_data(3, evictList_, &requested_), 0);

  EXPECT_EQ(fake::ksqdCalls().size(), 3u);
  for (const fake::KsqdCall& call : fake::ksqdCalls()) EXPECT_EQ(call.request, R"({"policy": "policy30"})");
  EXPECT_EQ(evictList_->count, 3);
  EXPECT_EQ(get_element_from_evlist(evictList_), &vm(30));
  EXPECT_EQ(requested_, nullptr);
  EXPECT_EQ(vm(30).evict_state, 0);
  ASSERT_EQ(fake::sentNotifications().size(), 3u);
  for (const fake::SentNotification& sent : fake::sentNotifications()) {
    EXPECT_EQ(sent.event.messageKey + " " + sent.event.attributes.at("uuid"), "eventlog.omra.ksu.cdp.eviction.failed vm30");
  }
  // Each pass logs the VM, then the same text with the failure appended.
  const std::vector<fake::LogLine> passes = fake::logLinesOf("KeepstoneServiceGateway::requestEviction");
  ASSERT_EQ(passes.size(), 6u);
  EXPECT_EQ(passes[5].message,
            "VM: vm30\nPolicy: policy30\nVM Size: 30\nEviction Type: 3\nMaster server: master.example"
            "Exception occured: Failed to invoke Ksqd CCT request. Return code:5");
}

TEST_F(EngineCallsTest, UnreadableMasterNameFailsEachPassWithoutAVm) {
  evictList({10, 20});
  fake::configScript().readResult = 2;
  fake::configScript().successfulReadsFirst = 1;  // the backup handler's own read

  EXPECT_EQ(call_evict_data(2, evictList_, &requested_), 0);

  EXPECT_TRUE(fake::ksqdCalls().empty());
  const std::vector<fake::LogLine> passes = fake::logLinesOf("KeepstoneServiceGateway::requestEviction");
  ASSERT_EQ(passes.size(), 2u);
  EXPECT_EQ(passes[0].message,
            "VM: vm20\nPolicy: policy20\nVM Size: 20\nEviction Type: 3"
            "Exception occured: Failed to read master server hostname from Keepstone configuration file");
  ASSERT_EQ(fake::sentNotifications().size(), 2u);
  EXPECT_EQ(fake::sentNotifications()[0].event.attributes,
            (std::map<std::string, std::string>{{"server", ""}, {"uuid", ""}}));
}

TEST_F(EngineCallsTest, ContainedFailuresReturnTheirCode) {
  const struct {
    const char* name;
    std::function<void(EngineCallsTest&)> arrange;
    std::function<int(EngineCallsTest&)> call;
    int result;
    std::string logged;  // under the entry function's own name
  } cases[] = {
      {"null status list", [](EngineCallsTest&) {},
       [](EngineCallsTest&) { return call_check_eviction_progress(1, nullptr); }, 20,
       "Exception occured: Eviction list to check status is null"},
      {"unreadable configuration for eviction", [](EngineCallsTest& t) {
         t.evictList({1});
         fake::configScript().readResult = 13;
       },
       [](EngineCallsTest& t) { return call_evict_data(1, t.evictList_, &t.requested_); }, 13,
       "Exception occured: Failed to read Keepstone configuration file"},
      {"no master server for polling", [](EngineCallsTest&) { fake::configScript().hasServerList = false; },
       [](EngineCallsTest& t) { return call_check_eviction_progress(1, &t.requested_); }, -1,
       "Exception occured: Failed to read master server from Keepstone configuration file"},
      {"more passes than VMs", [](EngineCallsTest& t) { t.evictList({1}); },
       [](EngineCallsTest& t) { return call_evict_data(2, t.evictList_, &t.requested_); }, 20,
       "Exception occured: Eviction list holds no VM for pass 2 of 2"},
      {"null evict list", [](EngineCallsTest&) {},
       [](EngineCallsTest& t) { return call_evict_data(1, nullptr, &t.requested_); }, 20,
       "Exception occured: Eviction list holds no VM for pass 1 of 1"},
      {"client library throws", [](EngineCallsTest& t) {
         t.evictList({1});
         ASSERT_EQ(call_evict_data(1, t.evictList_, &t.requested_), 0);
         fake::resetLog();
         fake::curlScript().requestThrows = std::make_exception_ptr(std::runtime_error("socket gone"));
       },
       [](EngineCallsTest& t) { return call_check_eviction_progress(1, &t.requested_); }, -1,
       "Exception occured: socket gone"},
      {"unparsable job answer", [](EngineCallsTest& t) {
         t.evictList({1});
         ASSERT_EQ(call_evict_data(1, t.evictList_, &t.requested_), 0);
         fake::resetLog();
         fake::curlScript().answers.push_back({500, "oops", {}, {}});
       },
       [](EngineCallsTest& t) { return call_check_eviction_progress(1, &t.requested_); }, 130,
       "Exception occured: Could not parse Jobs API response message."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TearDown();
    SetUp();
    c.arrange(*this);
    EXPECT_EQ(c.call(*this), c.result);
    std::vector<std::string> contained;
    for (const fake::LogLine& line : fake::logLines()) {
      if (line.message.rfind("Exception occured: ", 0) == 0) contained.push_back(line.message);
    }
    EXPECT_EQ(contained, std::vector<std::string>{c.logged});
  }
}

TEST_F(EngineCallsTest, PassCountZeroRequestsNothing) {
  evictList({5});
  EXPECT_EQ(call_evict_data(0, evictList_, &requested_), 0);
  EXPECT_TRUE(fake::ksqdCalls().empty());
  EXPECT_TRUE(fake::logLines().empty());
  EXPECT_TRUE(fake::sentNotifications().empty());
  EXPECT_EQ(fake::configReads(), 1);  // the backup handler was still made
}

TEST_F(EngineCallsTest, OnlyDoneExactlyMarksAVmDone) {
  evictList({1, 2, 3, 4, 5});
  ASSERT_EQ(call_evict_data(5, evictList_, &requested_), 0);
  // The requested list runs 1, 2, 3, 4, 5.
  pollWithStates({"DONE", "done", "DONE ", "", "ACTIVE"}, 5);
  EXPECT_EQ(vm(1).evict_state, 2);
  for (uint64_t size : {2, 3, 4, 5}) EXPECT_EQ(vm(size).evict_state, 1) << size;
  ASSERT_EQ(fake::curlCalls().size(), 5u);
  EXPECT_EQ(fake::curlCalls()[0].path, "keepstone/admin/jobs/1");
}

TEST_F(EngineCallsTest, PollsAtMostTheGivenNumberOfNodes) {
  evictList({1, 2, 3});
  ASSERT_EQ(call_evict_data(3, evictList_, &requested_), 0);
  for (evict_vm_info& record : vms_) record.evict_state = 7;
  pollWithStates({"DONE", "DONE"}, 2);
  EXPECT_EQ(vm(1).evict_state, 2);
  EXPECT_EQ(vm(2).evict_state, 2);
  EXPECT_EQ(vm(3).evict_state, 7);

  pollWithStates({"DONE", "DONE", "DONE"}, 9);
  EXPECT_EQ(vm(3).evict_state, 2);
  EXPECT_EQ(fake::curlCalls().size(), 5u);

  EXPECT_EQ(call_check_eviction_progress(0, &requested_), 0);
  vm_node_list* empty = nullptr;
  EXPECT_EQ(call_check_eviction_progress(3, &empty), 0);
  EXPECT_EQ(fake::curlCalls().size(), 5u);
}

TEST_F(EngineCallsTest, AlertCodesSelectKeyLevelsAndAttributes) {
  const struct {
    int code;
    const char* key;
    const char* severity;
    const char* priority;
    bool namesVm;
  } cases[] = {
      {2, "eventlog.omra.ksu.cdp.storage.highwatermark", "CRITICAL", "HIGH", false},
      {18, "eventlog.omra.ksu.cdp.storage.ioerror", "ERROR", "HIGH", true},
      {44, "eventlog.omra.ksu.cdp.eviction.failed", "ERROR", "HIGH", true},
      {45, "eventlog.omra.ksu.cdp.storage.nospace", "CRITICAL", "HIGH", false},
      {501, "eventlog.omra.ksu.cdp.fullsync.started", "INFO", "LOW", true},
      {502, "eventlog.omra.ksu.cdp.fullsync.resumed", "INFO", "LOW", true},
      {503, "eventlog.omra.ksu.cdp.fullsync.done", "INFO", "LOW", true},
      {504, "eventlog.omra.ksu.cdp.fullsync.suspended", "INFO", "LOW", true},
      {505, "eventlog.omra.ksu.cdp.partialimage.generated", "INFO", "LOW", true},
      {506, "", "INFO", "LOW", false},
      {0, "", "INFO", "LOW", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.code);
    fake::resetPlatform();
    EXPECT_EQ(raise_backup_alert(kUuid32, c.code, "12345"), 0);
    ASSERT_EQ(fake::sentNotifications().size(), 1u);
    const NotificationEvent& event = fake::sentNotifications()[0].event;
    EXPECT_EQ(event.messageKey, c.key);
    EXPECT_EQ(event.severity, c.severity);
    EXPECT_EQ(event.priority, c.priority);
    const std::map<std::string, std::string> vmAttributes{{"server", "cdp-host.example"}, {"uuid", kUuid36}};
    const std::map<std::string, std::string> noAttributes;
    EXPECT_EQ(event.attributes, c.namesVm ? vmAttributes : noAttributes);
    EXPECT_EQ(fake::logLinesOf("KeepstoneServiceGateway::raiseAlert"),
              (std::vector<fake::LogLine>{{4, "KeepstoneServiceGateway::raiseAlert",
                                           std::string("Raising alert for VM: ") + kUuid32 +
                                               ", bearing code: " + std::to_string(c.code)}}));
  }
}

TEST_F(EngineCallsTest, AlertFailuresNeverReachTheEngine) {
  fake::notificationScript().constructorThrows = true;
  EXPECT_EQ(raise_backup_alert("vm", 18, ""), 0);
  EXPECT_EQ(raise_backup_alert(nullptr, 18, ""), 0);
  const std::vector<fake::LogLine> contained = fake::logLinesOf("raise_backup_alert");
  ASSERT_EQ(contained.size(), 2u);
  EXPECT_EQ(contained[0].level, 16);
  EXPECT_EQ(contained[1].message, "Exception occured: VM identifier is null");

  fake::notificationScript() = fake::NotificationScript{};
  EXPECT_EQ(raise_backup_alert("vm", 18, ""), 0);
  fake::notificationScript().shutdownThrows = true;
  EXPECT_EQ(stop_alert_thread(), 0);
  EXPECT_EQ(fake::logLinesOf("stop_alert_thread").back().level, 16);
  // A publisher whose shutdown failed is still there; the next stop ends it.
  fake::notificationScript().shutdownThrows = false;
  EXPECT_EQ(stop_alert_thread(), 0);
  EXPECT_EQ(fake::suppliersDestroyed(), 1);
}

TEST_F(EngineCallsTest, StopAlertThreadLogsEveryTimeAndAlertsMakeANewPublisher) {
  EXPECT_EQ(stop_alert_thread(), 0);
  EXPECT_EQ(raise_backup_alert("vm", 501, ""), 0);
  EXPECT_EQ(stop_alert_thread(), 0);
  EXPECT_EQ(stop_alert_thread(), 0);
  EXPECT_EQ(raise_backup_alert("vm", 501, ""), 0);
  EXPECT_EQ(fake::suppliersConstructed(), 2);
  EXPECT_EQ(fake::suppliersShutDown(), 1);
  const fake::LogLine stopping{4, "stop_alert_thread",
                               "Stopping Alert Service thread which publishes the events to master server's MQBroker"};
  EXPECT_EQ(fake::logLinesOf("stop_alert_thread"), std::vector<fake::LogLine>(3, stopping));
}

}  // namespace
