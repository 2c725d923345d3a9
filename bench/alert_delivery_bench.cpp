// 10,000 alerts through libkscdp.so's publisher to a mosquitto broker of our
// own, timed from the first raise_backup_alert until a subscriber holds every
// one of them: with the outbox, with the outbox and the metrics file
// rewritten every second, with alerts in memory only, and against a
// bare libmosquitto client publishing the same 10,000 payloads at QoS 1 with
// the publisher's in-flight window. Each alert names a VM of its own, so each
// payload is distinct and a missing one shows in the count.
#include <benchmark/benchmark.h>
#include <kscdp/backup_engine.h>
#include <mosquitto.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "benchmark_program.h"
#include "mosquitto_broker.h"
#include "mqtt_subscriber.h"
#include "platform/standin/config/protocol.h"
#include "standin_files.h"

namespace {

using Clock = std::chrono::steady_clock;
using Messages = testbed::MqttSubscriber::Messages;

const int kAlertCount = 10000;  // as many as the memory-only queue holds
const int kIoErrorAlert = 18;   // names the VM, not a job
const int kInFlight = 20;       // the publisher's window
const std::chrono::seconds kDeliveryTimeout(60);

struct World {
  const bench::StandinFiles* files;
  const testbed::MosquittoBroker* broker;
  testbed::MqttSubscriber* subscriber;
  Messages payloads;  // the last kAlertCount alerts' payloads, for the bare client
};
World g_world;
unsigned long long g_raised = 0;  // alerts raised so far, also the last VM's number

void raiseAlert() {
  char vmId[KSCDP_VM_ID_SIZE];
  std::snprintf(vmId, sizeof vmId, "%032llu", ++g_raised);
  raise_backup_alert(vmId, kIoErrorAlert, "");
}

// Where the publisher keeps the alerts it accepted.
enum class Storage { kMemory, kOutbox, kOutboxSyncedEach };

void configure(Storage storage, bool metrics) {
  const std::string outbox = storage == Storage::kMemory ? "none" : g_world.files->scratchPath("outbox.db");
  g_world.files->writeConfig(
      "server = 127.0.0.1\nhost_name = bench-host\nbroker = " + g_world.broker->address() + "\noutbox = " + outbox +
      "\n" + (storage == Storage::kOutboxSyncedEach ? "outbox_sync = full\n" : "") +
      (metrics ? "metrics_file = " + g_world.files->scratchPath("kscdp.prom") + "\nmetrics_interval = 1\n" : ""));
}

// How many distinct payloads the subscriber received after its first
// `before`, once `expected` distinct ones are there or the timeout has passed
// (QoS 1 may deliver one twice). Every contender's measurement ends here, so
// that each pays the same for the check, which looks at its own payloads only.
size_t waitForDistinctAfter(size_t before, size_t expected) {
  const auto deadline = Clock::now() + kDeliveryTimeout;
  size_t wanted = expected;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    const Messages fresh = g_world.subscriber->waitForCountAfter(before, wanted, left);
    const size_t distinct = testbed::withoutRepeats(fresh).size();
    if (distinct >= expected || Clock::now() >= deadline) return distinct;
    wanted = fresh.size() + (expected - distinct);
  }
}

// A fresh publisher per repetition; its first alert starts it and its
// connection outside the measurement, and stop_alert_thread ends it.
void LibraryAlerts(benchmark::State& state, Storage storage, bool metrics) {
  double missing = 0;
  double raiseSeconds = 0;
  for (auto _ : state) {
    configure(storage, metrics);
    const size_t first = g_world.subscriber->received();
    raiseAlert();
    waitForDistinctAfter(first, 1);
    const size_t before = g_world.subscriber->received();
    const auto start = Clock::now();
    for (int i = 0; i < kAlertCount; ++i) raiseAlert();
    raiseSeconds += std::chrono::duration<double>(Clock::now() - start).count();
    missing += static_cast<double>(kAlertCount - waitForDistinctAfter(before, kAlertCount));
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    stop_alert_thread();
  }
  state.counters["missing"] = missing;
  state.counters["raise_ms"] = benchmark::Counter(raiseSeconds * 1e3, benchmark::Counter::kAvgIterations);
  state.SetItemsProcessed(state.iterations() * kAlertCount);
}

void OutboxAlertDelivery(benchmark::State& state) { LibraryAlerts(state, Storage::kOutbox, false); }
void OutboxAlertDeliveryWithMetrics(benchmark::State& state) { LibraryAlerts(state, Storage::kOutbox, true); }
void MemoryAlertDelivery(benchmark::State& state) { LibraryAlerts(state, Storage::kMemory, false); }
void FullSyncOutboxAlertDelivery(benchmark::State& state) { LibraryAlerts(state, Storage::kOutboxSyncedEach, false); }

// libmosquitto's own threaded client, publishing the captured payloads.
void BareMosquittoDelivery(benchmark::State& state) {
  struct mosquitto* client = mosquitto_new(nullptr, true, nullptr);
  if (client == nullptr) throw std::runtime_error("mosquitto_new failed");
  mosquitto_max_inflight_messages_set(client, kInFlight);
  if (mosquitto_connect(client, "127.0.0.1", g_world.broker->port(), 30) != MOSQ_ERR_SUCCESS ||
      mosquitto_loop_start(client) != MOSQ_ERR_SUCCESS) {
    mosquitto_destroy(client);
    state.SkipWithError("the bare client cannot connect");
    return;
  }
  double missing = 0;
  for (auto _ : state) {
    const size_t before = g_world.subscriber->received();
    const auto start = Clock::now();
    for (const std::string& payload : g_world.payloads) {
      mosquitto_publish(client, nullptr, standin::kNotificationTopic, static_cast<int>(payload.size()), payload.data(),
                        1, false);
    }
    missing += static_cast<double>(kAlertCount - waitForDistinctAfter(before, kAlertCount));
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
  mosquitto_disconnect(client);
  mosquitto_loop_stop(client, false);
  mosquitto_destroy(client);
  state.counters["missing"] = missing;
  state.SetItemsProcessed(state.iterations() * kAlertCount);
}

// Nine repetitions each of one delivery, interleaved by run.sh: the summary
// compares medians.
void NineRepetitions(benchmark::internal::Benchmark* contender) {
  contender->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1)->Repetitions(9)->ReportAggregatesOnly(true);
}
BENCHMARK(OutboxAlertDelivery)->Apply(NineRepetitions);
BENCHMARK(OutboxAlertDeliveryWithMetrics)->Apply(NineRepetitions);
BENCHMARK(MemoryAlertDelivery)->Apply(NineRepetitions);
BENCHMARK(BareMosquittoDelivery)->Apply(NineRepetitions);
// A sync per alert takes the disk's time: three repetitions tell its cost.
BENCHMARK(FullSyncOutboxAlertDelivery)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  return bench::runBenchmarks(argc, argv, "alert delivery benchmark", [] {
    const bench::StandinFiles files;
    // A broker with no cap on what waits for the subscriber: a slow
    // subscriber must not cost deliveries that the publisher made.
    testbed::MosquittoBroker::Options options;
    options.keepSessions = true;
    testbed::MosquittoBroker broker(options);
    testbed::MqttSubscriber subscriber(broker.port(), standin::kNotificationTopic);
    g_world = World{&files, &broker, &subscriber, {}};
    // One round outside the measurement warms everything up and gives the
    // bare client its payloads.
    configure(Storage::kMemory, false);
    for (int i = 0; i < kAlertCount; ++i) raiseAlert();
    if (waitForDistinctAfter(0, kAlertCount) != kAlertCount)
      throw std::runtime_error("the warm-up alerts did not all arrive");
    stop_alert_thread();
    g_world.payloads = testbed::withoutRepeats(subscriber.waitForCount(0, std::chrono::milliseconds(0)));
    benchmark::RunSpecifiedBenchmarks();
    g_world = World{};
  });
}
