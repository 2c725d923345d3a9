// The metrics file's content: Prometheus' text exposition format.
#ifndef KSCDP_PLATFORM_STANDIN_METRICS_TEXT_H_
#define KSCDP_PLATFORM_STANDIN_METRICS_TEXT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "platform/standin/counters/metrics.h"

namespace standin {

// What the metrics file reports besides the counts, as it stands when the
// file is written.
struct MetricsGauges {
  size_t alertsWaiting = 0;
  double oldestWaitingSeconds = 0;  // 0 when none waits
  uint64_t outboxBytes = 0;
  std::vector<std::string> brokers;  // "host:port" of every entry of the broker list
  std::string version;               // the library's release, e.g. "1.0.0"
  // Seconds until the file is rewritten: metrics_interval, or 0 in the last
  // write, when no publisher lives any more and none is due.
  uint64_t rewriteSeconds = 0;
};

// Every family of the metrics file, each with its # HELP and # TYPE lines, in
// a fixed order; label values are escaped as the format asks.
std::string metricsText(const metrics::Counts& counts, const MetricsGauges& gauges);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_METRICS_TEXT_H_
