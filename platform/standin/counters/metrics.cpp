#include "platform/standin/counters/metrics.h"

#include <algorithm>
#include <atomic>
#include <vector>

#include "port/fork_hooks.h"
#include "port/mutex.h"
#include "port/no_destructor.h"

namespace standin {
namespace metrics {

const char* const kHttpServiceNames[kHttpServices] = {"jobs", "daemon"};
const char* const kHttpOutcomeNames[kHttpOutcomes] = {"2xx", "3xx", "4xx", "5xx", "error"};

namespace {

using Counter = std::atomic<uint64_t>;

void add(Counter& counter, uint64_t amount = 1) { counter.fetch_add(amount, std::memory_order_relaxed); }

uint64_t read(const Counter& counter) { return counter.load(std::memory_order_relaxed); }

// Fixed buckets of atomics: an observation is two additions and the count.
class Histogram {
 public:
  void observe(std::chrono::steady_clock::duration took) {
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(took).count();
    const uint64_t clamped = micros > 0 ? static_cast<uint64_t>(micros) : 0;
    const double seconds = static_cast<double>(clamped) / 1e6;
    const size_t bucket = static_cast<size_t>(std::lower_bound(kBucketBounds.begin(), kBucketBounds.end(), seconds) -
                                              kBucketBounds.begin());
    add(m_buckets[bucket]);
    add(m_sumMicros, clamped);
  }

  HistogramCounts counts() const {
    HistogramCounts counts;
    for (size_t i = 0; i < m_buckets.size(); ++i) {
      counts.buckets[i] = read(m_buckets[i]);
      counts.count += counts.buckets[i];
    }
    counts.sumSeconds = static_cast<double>(read(m_sumMicros)) / 1e6;
    return counts;
  }

 private:
  std::array<Counter, kBucketBounds.size() + 1> m_buckets{};
  Counter m_sumMicros{0};
};

struct Registry {
  Counter alertsRaised{0};
  Counter alertsDelivered{0};
  Histogram delivery;
  Counter brokerSwitches{0};
  Counter httpRequests[kHttpServices][kHttpOutcomes] = {};
  Histogram httpDuration[kHttpServices];
  Counter evictionsRequested{0};
  Counter evictionPassesFailed{0};

  // The broker's name is text: copied in and out under the lock, never
  // held across I/O.
  port::Mutex brokerMutex;
  std::string connectedBroker GUARDED_BY(brokerMutex);

  // Taken by a publisher's start and end, and by the metrics writer.
  port::Mutex queuesMutex;
  std::vector<const WaitingQueue*> queues GUARDED_BY(queuesMutex);
};

// Never destroyed: a publisher's thread may count while the process exits.
port::NoDestructor<Registry> g_registry;

}  // namespace

void alertRaised() { add(g_registry->alertsRaised); }

void alertDelivered(std::chrono::steady_clock::duration sinceRaise) {
  add(g_registry->alertsDelivered);
  g_registry->delivery.observe(sinceRaise);
}

void brokerConnected(const std::string& hostPort, bool switched) {
  if (switched) add(g_registry->brokerSwitches);
  try {
    port::MutexLock lock(g_registry->brokerMutex);
    g_registry->connectedBroker = hostPort;
  } catch (...) {
    // No memory for the name: the file shows no broker connected until the next connection.
  }
}

void brokerDisconnected() {
  port::MutexLock lock(g_registry->brokerMutex);
  g_registry->connectedBroker.clear();
}

size_t httpOutcome(long status) {
  if (status >= 200 && status <= 599) return static_cast<size_t>(status / 100 - 2);
  return kHttpOutcomes - 1;
}

void httpExchange(HttpService service, long status, std::chrono::steady_clock::duration took) {
  const size_t index = static_cast<size_t>(service);
  add(g_registry->httpRequests[index][httpOutcome(status)]);
  g_registry->httpDuration[index].observe(took);
}

void evictionRequested() { add(g_registry->evictionsRequested); }

void evictionPassFailed() { add(g_registry->evictionPassesFailed); }

void watchQueue(const WaitingQueue* queue) {
  port::MutexLock lock(g_registry->queuesMutex);
  g_registry->queues.push_back(queue);
}

void unwatchQueue(const WaitingQueue* queue) {
  port::MutexLock lock(g_registry->queuesMutex);
  std::vector<const WaitingQueue*>& queues = g_registry->queues;
  queues.erase(std::remove(queues.begin(), queues.end(), queue), queues.end());
}

Waiting waitingInProcess() {
  Waiting total;
  port::MutexLock lock(g_registry->queuesMutex);
  for (const WaitingQueue* queue : g_registry->queues) {
    const Waiting one = queue->waiting();
    if (one.count == 0) continue;
    total.oldest = total.count == 0 ? one.oldest : std::min(total.oldest, one.oldest);
    total.count += one.count;
  }
  return total;
}

void releaseQueueRegistry() {
  port::MutexLock lock(g_registry->queuesMutex);
  if (g_registry->queues.empty()) std::vector<const WaitingQueue*>().swap(g_registry->queues);
}

Counts currentCounts() {
  Counts counts;
  const Registry& registry = *g_registry;
  counts.alertsRaised = read(registry.alertsRaised);
  counts.alertsDelivered = read(registry.alertsDelivered);
  counts.delivery = registry.delivery.counts();
  counts.brokerSwitches = read(registry.brokerSwitches);
  for (size_t service = 0; service < kHttpServices; ++service) {
    for (size_t outcome = 0; outcome < kHttpOutcomes; ++outcome)
      counts.httpRequests[service][outcome] = read(registry.httpRequests[service][outcome]);
    counts.httpDuration[service] = registry.httpDuration[service].counts();
  }
  counts.evictionsRequested = read(registry.evictionsRequested);
  counts.evictionPassesFailed = read(registry.evictionPassesFailed);
  port::MutexLock lock(g_registry->brokerMutex);
  counts.connectedBroker = g_registry->connectedBroker;
  return counts;
}

}  // namespace metrics

// The counts' locks are held while the process is copied; a child keeps the
// parent's counts (it never writes the metrics file) and queues (its
// parent's publishers, which it never destroys).
namespace {
void prepareMetricsFork() NO_THREAD_SAFETY_ANALYSIS {
  metrics::g_registry->queuesMutex.lock();
  metrics::g_registry->brokerMutex.lock();
}
void releaseMetricsAfterFork() NO_THREAD_SAFETY_ANALYSIS {
  metrics::g_registry->brokerMutex.unlock();
  metrics::g_registry->queuesMutex.unlock();
}
}  // namespace

const port::ForkHooks kMetricsForkHooks = {&prepareMetricsFork, &releaseMetricsAfterFork, &releaseMetricsAfterFork};

}  // namespace standin
