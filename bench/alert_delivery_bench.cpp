// 10,000 alerts through libkscdp.so's publisher to a mosquitto broker of our
// own, timed from the first raise_backup_alert until a subscriber holds every
// one of them. Each alert names a VM of its own, so each payload is distinct
// and a missing one shows in the count.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "benchmark_program.h"
#include "engine/backup_engine.h"
#include "mosquitto_broker.h"
#include "mqtt_subscriber.h"
#include "standin_files.h"

namespace {

const int kAlertCount = 10000;  // the publisher's queue holds as many
const int kIoErrorAlert = 18;   // names the VM, not a job
const char kTopic[] = "keepstone/notifications";
const std::chrono::seconds kDeliveryTimeout(60);

testbed::MqttSubscriber* g_subscriber = nullptr;
unsigned long long g_raised = 0;  // alerts raised so far, also the last VM's number

void raiseAlert() {
  char vmId[KSCDP_VM_ID_SIZE];
  std::snprintf(vmId, sizeof vmId, "%032llu", ++g_raised);
  raise_backup_alert(vmId, kIoErrorAlert, "");
}

// How many distinct payloads the subscriber holds once it has every alert
// raised so far, or when the timeout has passed. QoS 1 may deliver one twice.
size_t waitForEveryAlert() {
  const auto deadline = std::chrono::steady_clock::now() + kDeliveryTimeout;
  size_t wanted = g_raised;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const testbed::MqttSubscriber::Messages messages = g_subscriber->waitForCount(wanted, left);
    const size_t distinct = testbed::withoutRepeats(messages).size();
    if (distinct >= g_raised || std::chrono::steady_clock::now() >= deadline) return distinct;
    wanted = messages.size() + (g_raised - distinct);
  }
}

void AlertDelivery(benchmark::State& state) {
  double missing = 0;
  double raiseSeconds = 0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kAlertCount; ++i) raiseAlert();
    raiseSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    missing += static_cast<double>(g_raised - waitForEveryAlert());
  }
  state.counters["missing"] = missing;
  state.counters["raise_ms"] = benchmark::Counter(raiseSeconds * 1e3, benchmark::Counter::kAvgIterations);
  state.SetItemsProcessed(state.iterations() * kAlertCount);
}

BENCHMARK(AlertDelivery)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
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
    files.writeConfig("server = 127.0.0.1\nhost_name = bench-host\nbroker = " + broker.address() + "\n");
    testbed::MqttSubscriber subscriber(broker.port(), kTopic);
    g_subscriber = &subscriber;
    // The first alert starts the publisher and its connection, outside the measurement.
    raiseAlert();
    if (waitForEveryAlert() != 1) throw std::runtime_error("the first alert did not arrive");
    benchmark::RunSpecifiedBenchmarks();
    stop_alert_thread();
    g_subscriber = nullptr;
  });
}
