// The engine's four calls through the real libkscdp.so, loaded with dlopen as
// the engine loads it, against the master simulator and a mosquitto broker on
// loopback: from one thread, and from eight at once. The demo and the fleet
// (tests/CMakeLists.txt) run the same road through the programs; only this
// test pins each request and alert byte for byte.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <valgrind/valgrind.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "case_table.h"
#include "engine_library.h"
#include "master_sim/MasterSimulator.h"
#include "mosquitto_broker.h"
#include "mqtt_subscriber.h"
#include "program_run.h"
#include "standin_environment.h"

namespace {

using Clock = std::chrono::steady_clock;

const char kTopic[] = "keepstone/notifications";
const std::chrono::seconds kDeliveryTimeout(60);

// The VM "0...0<suffix>" of three hex digits.
std::string vmId(const std::string& suffix) { return std::string(29, '0') + suffix; }

// Every sample of the metrics file at `path`, read with the Prometheus
// client's own parser: `name{label="value",...}` (labels sorted) to its value.
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

// Eight engine threads: each evicts lists of its own, polls them until every
// VM is done and raises codes 501 to 504 for its four VMs; one of them stops
// the alert thread now and then. Every alert is about a VM of its own.
const int kThreads = 8;
const int kVmsPerRound = 4;
const std::chrono::seconds kBusyFor(3);
const std::chrono::seconds kRoundTimeout(20);

// What the threads did; gtest's assertions report their failures.
struct Outcome {
  std::mutex mutex;
  size_t alerts = 0;             // published by the engine's calls, each of its own
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

    for (int i = 0; i < kVmsPerRound; ++i) library.raise_backup_alert(vms[i].vm_id, 501 + i, "");
    if (thread == 0 && round % 2 == 0) library.stop_alert_thread();
    library.delete_from_vm_list(&requested);
    library.delete_evlist(evictList);
    std::lock_guard<std::mutex> lock(outcome.mutex);
    outcome.alerts += 2 * kVmsPerRound;  // the eviction's start and the code raised
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
                             "\noutbox = " + m_outbox + "\nmetrics_file = " + m_metrics + "\nmetrics_interval = 1\n");
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
  // Files of this test alone: the tests may run in one process (valgrind),
  // where alerts one test left waiting would arrive in the next.
  const std::string m_testName = ::testing::UnitTest::GetInstance()->current_test_info()->name();
  const std::string m_outbox = integration::scratchPath(m_testName + "-outbox.db");
  const std::string m_metrics = integration::scratchPath(m_testName + ".prom");
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
  // polls send only the Accept media type besides Host, all on one
  // connection.
  std::vector<std::string> requests;
  const std::vector<master_sim::RecordedRequest> seen = m_master.requests();
  for (const master_sim::RecordedRequest& request : seen) {
    requests.push_back(request.method + " " + request.path + " " + request.body);
    if (request.method == "POST") {
      EXPECT_EQ(request.headers.at("Content-Type") + " " + request.headers.at("X-Keepstone-Master"),
                "application/json 127.0.0.1");
    } else {
      EXPECT_EQ(request.headers.size(), 2u);
      EXPECT_EQ(request.headers.at("Accept"), keepstone_rest::kVersionedMediaType);
      EXPECT_EQ(request.remotePort, seen.back().remotePort);
    }
  }
  std::vector<std::string> expected[2];  // requests, alerts
  for (const cases::Row& row : cases::read("one_engine_thread.cases")) expected[row[0] == "alert"].push_back(row[1]);
  EXPECT_EQ(requests, expected[0]);

  EXPECT_EQ(m_library.raise_backup_alert(m_vms[1].vm_id, 45, ""), 0);
  EXPECT_EQ(m_library.stop_alert_thread(), 0);
  EXPECT_EQ(testbed::withoutRepeats(m_subscriber.waitForCount(expected[1].size(), kDeliveryTimeout)), expected[1]);

  // The metrics file counts the same run: two daemon requests accepted, one
  // refused (503), four polls, four alerts delivered and none waiting.
  Samples metrics = readMetrics(m_metrics);
  const Samples counted = {{"kscdp_alerts_raised_total{}", 4},
                           {"kscdp_alerts_delivered_total{}", 4},
                           {"kscdp_alert_delivery_seconds_count{}", 4},
                           {"kscdp_alert_delivery_seconds_bucket{le=\"+Inf\"}", 4},
                           {"kscdp_alerts_waiting{}", 0},
                           {"kscdp_alert_oldest_waiting_seconds{}", 0},
                           {"kscdp_broker_switches_total{}", 0},
                           {"kscdp_http_requests_total{outcome=\"2xx\",service=\"daemon\"}", 2},
                           {"kscdp_http_requests_total{outcome=\"5xx\",service=\"daemon\"}", 1},
                           {"kscdp_http_requests_total{outcome=\"2xx\",service=\"jobs\"}", 4},
                           {"kscdp_http_requests_total{outcome=\"error\",service=\"jobs\"}", 0},
                           {"kscdp_http_request_duration_seconds_count{service=\"daemon\"}", 3},
                           {"kscdp_http_request_duration_seconds_count{service=\"jobs\"}", 4},
                           {"kscdp_evictions_requested_total{}", 2},
                           {"kscdp_eviction_passes_failed_total{}", 1},
                           {"kscdp_build_info{version=\"" KSCDP_VERSION "\"}", 1}};
  for (const auto& [sample, value] : counted) EXPECT_EQ(metrics[sample], value) << sample;
  EXPECT_EQ(metrics.count("kscdp_broker_connected{broker=\"" + m_broker.address() + "\"}"), 1u);
  EXPECT_GT(metrics["kscdp_outbox_bytes{}"], 0);
}

// With the broker away, the alerts wait, and the metrics file says how many
// and since when: while the publisher runs, and after its stop, in the outbox.
TEST_F(EngineEndToEndTest, MetricsOfAlertsWaitingWithTheBrokerAway) {
  m_broker.stop();
  for (int i = 0; i < 40; ++i)
    ASSERT_EQ(m_library.raise_backup_alert(vmId(std::to_string(200 + i)).c_str(), 501, ""), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // two rewrites at least
  Samples running = readMetrics(m_metrics);
  EXPECT_EQ(running["kscdp_alerts_raised_total{}"], 40);
  EXPECT_EQ(running["kscdp_alerts_delivered_total{}"], 0);
  EXPECT_EQ(running["kscdp_alerts_waiting{}"], 40);
  EXPECT_GE(running["kscdp_alert_oldest_waiting_seconds{}"], 1.0);
  EXPECT_LT(running["kscdp_alert_oldest_waiting_seconds{}"], 30.0);
  EXPECT_EQ(running["kscdp_broker_connected{broker=\"" + m_broker.address() + "\"}"], 0);
  EXPECT_EQ(running["kscdp_metrics_rewrite_seconds{}"], 1);

  ASSERT_EQ(m_library.stop_alert_thread(), 0);
  Samples stopped = readMetrics(m_metrics);
  EXPECT_EQ(stopped["kscdp_metrics_rewrite_seconds{}"], 0);  // no publisher: the file stays as it is
  EXPECT_EQ(stopped["kscdp_alerts_waiting{}"], 40);
  EXPECT_GE(stopped["kscdp_alert_oldest_waiting_seconds{}"], running["kscdp_alert_oldest_waiting_seconds{}"]);
  EXPECT_GT(stopped["kscdp_outbox_bytes{}"], 0);
}

// A metrics file that cannot be written is said once in the log, with what
// to do, however many rewrites fail; alerts flow as ever.
TEST_F(EngineEndToEndTest, AMetricsFileThatCannotBeWrittenIsLoggedOnce) {
  const std::string unwritable = integration::scratchPath("no-such-directory/kscdp.prom");
  integration::writeConfig("server = 127.0.0.1\nhost_name = cdp-e2e\nbroker = " + m_broker.address() +
                           "\noutbox = none\nmetrics_file = " + unwritable + "\nmetrics_interval = 1\n");
  const size_t logStart = integration::logText().size();
  ASSERT_EQ(m_library.raise_backup_alert(vmId("300").c_str(), 501, ""), 0);
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

  // The payloads' form is pinned above; here every one arrives, and no other.
  EXPECT_EQ(testbed::withoutRepeats(m_subscriber.waitForDistinct(outcome.alerts, kDeliveryTimeout)).size(),
            outcome.alerts);
}

// A loopback peer of the jobs interface that reads a request and then, as
// told, never answers or answers without end (chunks of 1 MiB).
class LoopbackPeer {
 public:
  explicit LoopbackPeer(bool endless) {
    bind(m_listener, reinterpret_cast<const sockaddr*>(&m_address), sizeof m_address);
    socklen_t length = sizeof m_address;
    getsockname(m_listener, reinterpret_cast<sockaddr*>(&m_address), &length);
    listen(m_listener, 4);
    m_thread = std::thread([this, endless] {
      const int fd = accept(m_listener, nullptr, nullptr);
      char request[4096];
      if (fd < 0 || read(fd, request, sizeof request) <= 0 || !endless) return;
      const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
      const std::string chunk = "100000\r\n" + std::string(1 << 20, 'x') + "\r\n";
      for (bool open = write(fd, head.data(), head.size()) > 0; open;) open = write(fd, chunk.data(), chunk.size()) > 0;
      close(fd);
    });
  }
  ~LoopbackPeer() {
    shutdown(m_listener, SHUT_RDWR);
    m_thread.join();
    close(m_listener);
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(ntohs(m_address.sin_port)); }

 private:
  sockaddr_in m_address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  const int m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::thread m_thread;
};

// A poll of job 1 against `rest_url`, on a thread of its own when asked to.
struct Poll {
  const EngineLibrary* library;
  int result = -2;
  static void* run(void* poll) {
    auto* self = static_cast<Poll*>(poll);
    evict_vm_info vm{};
    vm.job_id = 1;
    vm_node_list* requested = nullptr;
    self->library->insert_into_vm_list(&requested, &vm);
    self->result = self->library->call_check_eviction_progress(1, &requested);
    self->library->delete_from_vm_list(&requested);
    pthread_testcancel();  // the engine's next cancellation point
    return nullptr;
  }
};

// Whether an alert about the VM vmId(suffix) reached `subscriber` within the
// delivery timeout.
bool alertArrives(testbed::MqttSubscriber& subscriber, const std::string& suffix) {
  const std::string uuid = "00000000-0000-0000-0000-000000000" + suffix;
  const auto names = [&uuid](const testbed::MqttSubscriber::Messages& received) {
    return std::any_of(received.begin(), received.end(),
                       [&uuid](const std::string& payload) { return payload.find(uuid) != std::string::npos; });
  };
  return names(subscriber.waitUntil(names, kDeliveryTimeout));
}

// Whether a forked child's outcome can be judged here: ThreadSanitizer cannot
// follow a process that has threads into fork's child, and valgrind counts
// the blocks that only the parent's threads point to as lost in the child.
bool childrenCanBeJudged() {
#if defined(__SANITIZE_THREAD__)
  return false;
#else
  return RUNNING_ON_VALGRIND == 0;
#endif
}

long residentMegabytes() {
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * sysconf(_SC_PAGESIZE) >> 20;
}

// The engine's process as the library lives in it: each row ends with an
// alert raised by the process, which must arrive.
TEST_F(EngineEndToEndTest, AGuestInTheEnginesProcess) {
  const std::string config =
      "server = 127.0.0.1\nhost_name = cdp-e2e\nhttp_timeout = 2\nbroker = " + m_broker.address() +
      "\noutbox = " + m_outbox + "\nmetrics_file = " + m_metrics + "\nmetrics_interval = 1\n";
  const std::string log = integration::logText();
  const struct {
    const char* name;
    bool forks;
    std::function<void()> run;
  } cases[] = {
      {"a forked child raises and stops on a publisher of its own", true,
       [&] {
         m_library.raise_backup_alert(vmId("f01").c_str(), 501, "");
         int alive[2];
         ASSERT_EQ(pipe(alive), 0);
         const pid_t child = fork();
         if (child == 0) {
           const Clock::time_point start = Clock::now();
           m_library.raise_backup_alert(vmId("f02").c_str(), 501, "");
           m_library.stop_alert_thread();
           const bool quick = Clock::now() - start < std::chrono::seconds(4);
           char end;
           close(alive[1]);
           _exit(quick && read(alive[0], &end, 1) == 0 ? 0 : 1);  // lives until the parent has a new publisher
         }
         // The parent's next publisher owns the outbox while the child lives.
         m_library.stop_alert_thread();
         m_library.raise_backup_alert(vmId("f05").c_str(), 501, "");
         close(alive[0]);
         close(alive[1]);
         int status = -1;
         waitpid(child, &status, 0);
         const std::string parent = " " + std::to_string(getpid()) + " 16 NotificationSupplier: cannot use the outbox";
         EXPECT_EQ(integration::logText().find(parent, log.size()), std::string::npos);
         EXPECT_EQ(status, 0) << "the child's stop did not see its alert acknowledged";
         EXPECT_TRUE(alertArrives(m_subscriber, "f01"));
         EXPECT_TRUE(alertArrives(m_subscriber, "f02"));
         EXPECT_TRUE(alertArrives(m_subscriber, "f05"));
       }},
      {"a forked child's alert goes out before both have stopped", true,
       [&] {
         m_library.raise_backup_alert(vmId("f06").c_str(), 501, "");
         const pid_t child = fork();
         if (child == 0) {
           m_library.raise_backup_alert(vmId("f07").c_str(), 501, "");
           m_library.stop_alert_thread();
           _exit(0);
         }
         int status = -1;
         waitpid(child, &status, 0);
         m_library.raise_backup_alert(vmId("f08").c_str(), 501, "");
         m_library.stop_alert_thread();
         // No publisher is left to send anything that waits, and the child
         // kept nothing: its alert was acknowledged.
         for (const char* vm : {"f06", "f07", "f08"}) EXPECT_TRUE(alertArrives(m_subscriber, vm)) << vm;
         EXPECT_FALSE(std::filesystem::exists(m_outbox + ".guest-" + std::to_string(child)));
       }},
      {"a poller cancelled inside a call", false,
       [&] {
         const LoopbackPeer silent(false);
         integration::writeConfig(config + "rest_url = " + silent.url() + "\n");
         Poll poll{&m_library};
         pthread_t thread;
         ASSERT_EQ(pthread_create(&thread, nullptr, &Poll::run, &poll), 0);
         std::this_thread::sleep_for(std::chrono::milliseconds(300));
         pthread_cancel(thread);
         void* ended = nullptr;
         pthread_join(thread, &ended);
         EXPECT_EQ(ended, PTHREAD_CANCELED);
         EXPECT_NE(poll.result, 0);
       }},
      {"an answer without end", false,
       [&] {
         const LoopbackPeer endless(true);
         integration::writeConfig(config + "rest_url = " + endless.url() + "\n");
         const long before = residentMegabytes();
         Poll poll{&m_library};
         Poll::run(&poll);
         EXPECT_NE(poll.result, 0);
         EXPECT_LT(residentMegabytes() - before, 64);
         EXPECT_NE(integration::logText().find("the answer is larger than 1024 KiB"), std::string::npos);
       }},
      {"thirty loads and unloads", false,
       [&] {
         const auto openFiles = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
         long opened = 0;  // once the library is loaded afresh
         for (int i = 0; i < 30; ++i) {
           m_library.unload();
           std::string error;
           ASSERT_TRUE(m_library.load(KSCDP_LIBRARY_PATH, error)) << error;
           m_library.raise_backup_alert(vmId("f03").c_str(), 501, "");
           m_library.stop_alert_thread();
           if (i == 0) opened = openFiles();
         }
         EXPECT_EQ(openFiles(), opened);
       }},
      {"a process that exits without a stop", true,
       [&] {
         const pid_t child = fork();
         if (child == 0) {
           m_library.raise_backup_alert(vmId("f04").c_str(), 501, "");
           std::exit(0);  // as a return from main
         }
         int status = -1;
         waitpid(child, &status, 0);
         EXPECT_EQ(status, 0);
       }},
  };
  int row = 0;
  for (const auto& c : cases) {
    if (c.forks && !childrenCanBeJudged()) continue;
    SCOPED_TRACE(c.name);
    integration::writeConfig(config);
    c.run();
    integration::writeConfig(config);
    const std::string after = "ff" + std::to_string(row++);
    EXPECT_EQ(m_library.raise_backup_alert(vmId(after).c_str(), 503, ""), 0);
    EXPECT_EQ(m_library.stop_alert_thread(), 0);
    EXPECT_TRUE(alertArrives(m_subscriber, after));
  }
  EXPECT_EQ(integration::logText().find("not acknowledged", log.size()), std::string::npos);
}

// "127.0.0.1:<port>" of a loopback port that nothing listens on.
std::string deadBroker() { return "127.0.0.1:" + std::to_string(testbed::freeLoopbackPort()); }

// An engine that unloads the library without stop_alert_thread: each row runs
// kscdp_unload_cycles (under valgrind when this test runs under it), which
// must end by itself with both libraries unmapped after every dlclose. Every
// alert it raised arrives, if not before the unload then from the outbox
// through the next publisher.
TEST_F(EngineEndToEndTest, UnloadingWithoutAStop) {
  const struct {
    const char* name;
    bool brokerUp;
    int cycles;
    const char* how;
    int firstVm;
  } cases[] = {
      {"30 cycles with the broker up, no stop", true, 30, "dlclose", 100},
      {"dlclose while the broker is down, no stop, 5 cycles", false, 5, "dlclose", 200},
      {"one cycle, exit at once", false, 1, "exit", 300},
  };
  const std::string config =
      "server = 127.0.0.1\nhost_name = cdp-e2e\noutbox = " + integration::scratchPath("unload-outbox.db") +
      "\nmetrics_file = " + integration::scratchPath("unload.prom") + "\nmetrics_interval = 1\nbroker = ";
  const std::string checker = RUNNING_ON_VALGRIND ? "valgrind -q --error-exitcode=1 --leak-check=full "
                                                    "--errors-for-leak-kinds=definite,indirect "
                                                  : "";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    integration::writeConfig(config + (c.brokerUp ? m_broker.address() : deadBroker()) + "\n");
    const std::string command = checker + KSCDP_UNLOAD_CYCLES_PATH + " " + KSCDP_LIBRARY_PATH + " " +
                                std::to_string(c.cycles) + " " + c.how + " " + std::to_string(c.firstVm);
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    integration::writeConfig(config + m_broker.address() + "\n");
    m_library.raise_backup_alert(vmId("fff").c_str(), 503, "");
    m_library.stop_alert_thread();
    for (int cycle = 0; cycle < c.cycles; ++cycle) {
      EXPECT_TRUE(alertArrives(m_subscriber, std::to_string(c.firstVm + cycle))) << "cycle " << cycle;
    }
  }
}

// How many events wait in the outbox at `path` and in the guest files beside
// it.
int eventsWaiting(const std::string& path) {
  const std::string count = "for f in " + path + " " + path +
                            ".guest-*; do [ -f $f ] && sqlite3 $f 'SELECT count(*) FROM events'; done | "
                            "awk '{ n += $1 } END { print n + 0 }'";
  FILE* pipe = popen(count.c_str(), "r");
  int events = -1;
  if (pipe != nullptr && std::fscanf(pipe, "%d", &events) != 1) events = -1;
  if (pipe != nullptr) pclose(pipe);
  return events;
}

// A forked child's alerts are kept as its parent's are, whatever the parent's
// publisher is doing when the child raises them: with the broker away, the
// parent's one alert and the child's three all wait in the outbox once both
// processes have stopped.
TEST_F(EngineEndToEndTest, AForkedChildsAlertsAreKeptWithTheBrokerAway) {
  if (!childrenCanBeJudged()) GTEST_SKIP() << "a forked child cannot be judged here";
  enum class Parent { kAlive, kInsideItsStop, kStopped };
  const struct {
    const char* name;
    Parent parent;
  } cases[] = {
      {"the parent alive", Parent::kAlive},
      {"the parent inside its stop", Parent::kInsideItsStop},
      {"the parent stopped", Parent::kStopped},
  };
  int row = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string outbox = integration::scratchPath("fork-" + std::to_string(row++) + ".db");
    integration::writeConfig("server = 127.0.0.1\nhost_name = cdp-e2e\nbroker = " + deadBroker() +
                             "\noutbox = " + outbox + "\n");
    m_library.raise_backup_alert(vmId("e00").c_str(), 501, "");
    std::thread stopping;
    if (c.parent == Parent::kStopped) m_library.stop_alert_thread();
    if (c.parent == Parent::kInsideItsStop) {
      stopping = std::thread([this] { m_library.stop_alert_thread(); });
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    const pid_t child = fork();
    if (child == 0) {
      for (const char* vm : {"e01", "e02", "e03"}) m_library.raise_backup_alert(vmId(vm).c_str(), 501, "");
      m_library.stop_alert_thread();
      _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    if (stopping.joinable()) stopping.join();
    m_library.stop_alert_thread();
    EXPECT_EQ(eventsWaiting(outbox), 4);
    EXPECT_FALSE(std::filesystem::exists(outbox + "-wal"));
  }
}

}  // namespace
