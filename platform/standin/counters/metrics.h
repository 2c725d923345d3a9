// The process's counts for the metrics file: what the stand-ins see of the
// library's alerts, broker connections and HTTP exchanges.
#ifndef KSCDP_PLATFORM_STANDIN_COUNTERS_METRICS_H_
#define KSCDP_PLATFORM_STANDIN_COUNTERS_METRICS_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "port/fork_hooks.h"

namespace standin {
namespace metrics {

// Upper bounds, in seconds, of the latency histograms' buckets: a
// millisecond to a minute; the last bucket, +Inf, is implied.
constexpr std::array<double, 15> kBucketBounds = {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25,
                                                  0.5,   1,      2.5,   5,    10,    30,   60};

enum class HttpService { kJobs, kDaemon };
constexpr size_t kHttpServices = 2;
// "2xx" to "5xx", then "error" for an exchange that got no answer.
constexpr size_t kHttpOutcomes = 5;
extern const char* const kHttpServiceNames[kHttpServices];
extern const char* const kHttpOutcomeNames[kHttpOutcomes];

// Every function below adds to the process's counts with relaxed atomic
// additions only (brokerConnected() and brokerDisconnected() also take a
// lock that nothing holds across I/O): any thread, never blocks, never
// throws. Counts start at 0 with the process and are never reset.

// An alert was accepted for delivery.
void alertRaised();
// The broker acknowledged an alert `sinceRaise` after it was accepted.
void alertDelivered(std::chrono::steady_clock::duration sinceRaise);
// A connection to broker `hostPort` ("host:port") is up; `switched`: the
// last connection before it was to another broker.
void brokerConnected(const std::string& hostPort, bool switched);
// The connection to the broker is gone, or was never made.
void brokerDisconnected();
// One HTTP exchange ended: `status` is the answer's HTTP status, 0 when no
// answer came; `took` is how long it lasted.
void httpExchange(HttpService service, long status, std::chrono::steady_clock::duration took);
// The request daemon accepted the backup of one VM.
void evictionRequested();
// A pass of an eviction failed (its alert was raised).
void evictionPassFailed();

struct HistogramCounts {
  std::array<uint64_t, kBucketBounds.size() + 1> buckets{};  // per bucket, not cumulative; the last is +Inf
  uint64_t count = 0;
  double sumSeconds = 0;
};

// The counts as they stand; each count is read once, atomically.
struct Counts {
  uint64_t alertsRaised = 0;
  uint64_t alertsDelivered = 0;
  HistogramCounts delivery;
  std::string connectedBroker;  // "host:port", empty while none is connected
  uint64_t brokerSwitches = 0;
  uint64_t httpRequests[kHttpServices][kHttpOutcomes] = {};
  HistogramCounts httpDuration[kHttpServices];
  uint64_t evictionsRequested = 0;
  uint64_t evictionPassesFailed = 0;
};
Counts currentCounts();

// Alerts that wait for the broker: `count` of them, the oldest accepted at
// `oldest` (meaningful when `count` is not 0).
struct Waiting {
  size_t count = 0;
  std::chrono::steady_clock::time_point oldest;
};

// A queue of waiting alerts that the metrics file reports while it is
// watched. waiting() is called with the registry's lock held: it may take
// only a short lock of its own.
class WaitingQueue {
 public:
  virtual Waiting waiting() const = 0;

 protected:
  ~WaitingQueue() = default;
};
// Adds `queue` to, or removes it from, the queues the metrics file sums.
// Thread-safe; watchQueue() throws std::bad_alloc when memory runs out.
void watchQueue(const WaitingQueue* queue);
void unwatchQueue(const WaitingQueue* queue);
// Every watched queue's alerts together. Thread-safe.
Waiting waitingInProcess();
// Gives back the registry of queues when none is watched (the library is
// being unloaded).
void releaseQueueRegistry();

// The outcome label of an HTTP status: index into kHttpOutcomeNames.
size_t httpOutcome(long status);

}  // namespace metrics

// Around fork(): no count is being copied while the process is.
extern const port::ForkHooks kMetricsForkHooks;

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_COUNTERS_METRICS_H_
