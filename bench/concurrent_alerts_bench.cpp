// raise_backup_alert beside other engine threads, through libkscdp.so to a
// mosquitto broker of our own:
//   AlertLatency/0   each alert's latency (p50, p99, max), the engine otherwise idle;
//   AlertLatency/1   the same while four threads poll jobs the master does not
//                    know, so that they spend their calls in the 3 s pauses
//                    between 404 answers;
//   AlertThroughput/N  alerts per second raised from N threads at once;
//   AlertBesideABacklog  a second thread's alert, raised 2 ms after the first
//                    alert of a process whose outbox holds 99,000 events that
//                    an earlier run left while the broker was away, and the
//                    disk those events take per event.
#include <benchmark/benchmark.h>
#include <kscdp/backup_engine.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "benchmark_program.h"
#include "master_sim/MasterSimulator.h"
#include "mosquitto_broker.h"
#include "standin_files.h"

namespace {

using Clock = std::chrono::steady_clock;

const int kLatencyAlerts = 2000;
const int kThroughputAlerts = 4000;
const int kPollingThreads = 4;
const int kIoErrorAlert = 18;  // names the VM, not a job
const uint64_t kUnknownJob = 999999999;

const int kBacklog = 99000;

std::atomic<unsigned long long> g_raised{0};

// The program's files and its configuration, which a benchmark may change
// and must put back.
const bench::StandinFiles* g_files = nullptr;
std::string g_config;

void raiseAlert() {
  char vmId[KSCDP_VM_ID_SIZE];
  std::snprintf(vmId, sizeof vmId, "%032llu", ++g_raised);
  raise_backup_alert(vmId, kIoErrorAlert, "");
}

// Threads that poll an unknown job, call after call, until told to stop
// (then each ends its current call, up to 15 s later).
class UnknownJobPollers {
 public:
  explicit UnknownJobPollers(int count) {
    for (int i = 0; i < count; ++i) m_threads.emplace_back([this] { poll(); });
  }
  ~UnknownJobPollers() {
    m_stop = true;
    for (std::thread& thread : m_threads) thread.join();
  }

 private:
  void poll() {
    evict_vm_info vm{};
    vm.job_id = kUnknownJob;
    vm_node_list* requested = nullptr;
    insert_into_vm_list(&requested, &vm);
    while (!m_stop) call_check_eviction_progress(1, &requested);
    delete_from_vm_list(&requested);
  }

  std::atomic<bool> m_stop{false};
  std::vector<std::thread> m_threads;
};

double percentile(std::vector<double>& sorted, double fraction) {
  const size_t index = static_cast<size_t>(fraction * static_cast<double>(sorted.size() - 1));
  return sorted[index];
}

void AlertLatency(benchmark::State& state) {
  const bool polling = state.range(0) != 0;
  std::vector<double> microseconds;
  microseconds.reserve(kLatencyAlerts);
  for (auto _ : state) {
    const UnknownJobPollers pollers(polling ? kPollingThreads : 0);
    // Let the pollers reach their first pause.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    for (int i = 0; i < kLatencyAlerts; ++i) {
      const Clock::time_point start = Clock::now();
      raiseAlert();
      microseconds.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
  }  // the pollers end their last calls here: only the counters below are the result
  stop_alert_thread();
  std::sort(microseconds.begin(), microseconds.end());
  state.counters["p50_us"] = percentile(microseconds, 0.50);
  state.counters["p99_us"] = percentile(microseconds, 0.99);
  state.counters["max_us"] = microseconds.back();
}

void AlertThroughput(benchmark::State& state) {
  const int threadCount = static_cast<int>(state.range(0));
  double seconds = 0;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
      threads.emplace_back([threadCount] {
        for (int i = 0; i < kThroughputAlerts / threadCount; ++i) raiseAlert();
      });
    }
    for (std::thread& thread : threads) thread.join();
    seconds += std::chrono::duration<double>(Clock::now() - start).count();
    state.PauseTiming();
    stop_alert_thread();  // delivers what waits, so the next run starts with an empty queue
    state.ResumeTiming();
  }
  state.counters["alerts_per_s"] = static_cast<double>(state.iterations()) * kThroughputAlerts / seconds;
}

// Bytes of every file of the outbox at `path`: database, WAL, index.
double outboxBytes(const std::string& path) {
  double bytes = 0;
  for (const char* suffix : {"", "-wal", "-shm"}) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path + suffix, error);
    if (!error) bytes += static_cast<double>(size);
  }
  return bytes;
}

void AlertBesideABacklog(benchmark::State& state) {
  const std::string outbox = g_files->scratchPath("backlog.db");
  const std::string awayBroker = "127.0.0.1:" + std::to_string(testbed::freeLoopbackPort());
  double waitedMs = 0;
  double bytesPerEvent = 0;
  for (auto _ : state) {
    state.PauseTiming();
    stop_alert_thread();
    std::filesystem::remove(outbox);
    g_files->writeConfig("server = 127.0.0.1\nhost_name = bench-host\nbroker = " + awayBroker + "\noutbox = " + outbox +
                         "\n");
    for (int i = 0; i < kBacklog; ++i) raiseAlert();
    stop_alert_thread();  // the broker is away: they wait in the outbox
    bytesPerEvent = outboxBytes(outbox) / kBacklog;
    state.ResumeTiming();
    std::thread first(raiseAlert);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    const Clock::time_point start = Clock::now();
    raiseAlert();
    waitedMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    first.join();
    state.PauseTiming();
    stop_alert_thread();
    g_files->writeConfig(g_config);
    state.ResumeTiming();
  }
  state.counters["second_alert_ms"] = waitedMs;
  state.counters["bytes_per_waiting_alert"] = bytesPerEvent;
}

BENCHMARK(AlertLatency)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(AlertThroughput)
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);
BENCHMARK(AlertBesideABacklog)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
  return bench::runBenchmarks(argc, argv, "concurrent alerts benchmark", [] {
    const bench::StandinFiles files;
    testbed::MosquittoBroker broker;
    master_sim::MasterSimulator master;
    if (!master.start()) throw std::runtime_error("the master simulator cannot start");
    g_files = &files;
    g_config = "server = 127.0.0.1\nhost_name = bench-host\nrest_url = " + master.url() +
               "\nbroker = " + broker.address() + "\noutbox = " + files.scratchPath("outbox.db") + "\n";
    files.writeConfig(g_config);
    // The first alert starts the publisher and its connection, outside the measurement.
    raiseAlert();
    benchmark::RunSpecifiedBenchmarks();
    stop_alert_thread();
  });
}
