#include "platform/standin/metrics/text.h"

#include <cstdio>
#include <cstdlib>

namespace standin {
namespace {

// A label value between quotes: backslash, quote and line feed escaped.
std::string labelValue(const std::string& value) {
  std::string quoted = "\"";
  for (const char c : value) {
    if (c == '\\' || c == '"') quoted += '\\';
    quoted += c == '\n' ? std::string("\\n") : std::string(1, c);
  }
  return quoted + "\"";
}

// Fewest decimals, up to nine, that read back as the same double ("10",
// "0.25", "0.000763"); otherwise all its digits.
std::string number(double value) {
  char text[352];  // the longest a double's "%.9f" can be
  for (int decimals = 0; decimals <= 9; ++decimals) {
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    if (std::strtod(text, nullptr) == value) return text;
  }
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

class Families {
 public:
  void family(const char* name, const char* type, const char* help) {
    m_text += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  }
  void sample(const std::string& name, const std::string& labels, const std::string& value) {
    m_text += name + (labels.empty() ? "" : "{" + labels + "}") + " " + value + "\n";
  }
  void sample(const std::string& name, const std::string& labels, uint64_t value) {
    sample(name, labels, std::to_string(value));
  }
  // The _bucket lines (cumulative), _sum and _count of one histogram;
  // `labels` are those of every line, before "le".
  void histogram(const std::string& name, const std::string& labels, const metrics::HistogramCounts& counts) {
    const std::string prefix = labels.empty() ? "" : labels + ",";
    uint64_t cumulative = 0;
    for (size_t i = 0; i < counts.buckets.size(); ++i) {
      cumulative += counts.buckets[i];
      const std::string bound = i < metrics::kBucketBounds.size() ? number(metrics::kBucketBounds[i]) : "+Inf";
      sample(name + "_bucket", prefix + "le=" + labelValue(bound), cumulative);
    }
    sample(name + "_sum", labels, number(counts.sumSeconds));
    sample(name + "_count", labels, cumulative);
  }
  const std::string& text() const { return m_text; }

 private:
  std::string m_text;
};

}  // namespace

std::string metricsText(const metrics::Counts& counts, const MetricsGauges& gauges) {
  Families out;
  out.family("kscdp_alerts_raised_total", "counter", "Alerts accepted for delivery to the broker.");
  out.sample("kscdp_alerts_raised_total", "", counts.alertsRaised);
  out.family("kscdp_alerts_delivered_total", "counter", "Alerts a broker acknowledged.");
  out.sample("kscdp_alerts_delivered_total", "", counts.alertsDelivered);
  out.family("kscdp_alerts_waiting", "gauge",
             "Alerts not yet acknowledged, in the outbox or in memory, those of earlier runs included.");
  out.sample("kscdp_alerts_waiting", "", gauges.alertsWaiting);
  out.family("kscdp_alert_oldest_waiting_seconds", "gauge", "Age of the oldest waiting alert, 0 when none waits.");
  out.sample("kscdp_alert_oldest_waiting_seconds", "", number(gauges.oldestWaitingSeconds));
  out.family("kscdp_alert_delivery_seconds", "histogram",
             "Time from an alert's raise to the broker's acknowledgement.");
  out.histogram("kscdp_alert_delivery_seconds", "", counts.delivery);
  out.family("kscdp_outbox_bytes", "gauge", "Size of the outbox's files on disk.");
  out.sample("kscdp_outbox_bytes", "", gauges.outboxBytes);
  out.family("kscdp_broker_connected", "gauge", "1 for the broker entry connected now, 0 for every other entry.");
  bool listed = false;
  for (const std::string& broker : gauges.brokers) {
    out.sample("kscdp_broker_connected", "broker=" + labelValue(broker), broker == counts.connectedBroker ? "1" : "0");
    listed = listed || broker == counts.connectedBroker;
  }
  // A broker that the configuration no longer lists is still the one connected.
  if (!listed && !counts.connectedBroker.empty())
    out.sample("kscdp_broker_connected", "broker=" + labelValue(counts.connectedBroker), "1");
  out.family("kscdp_broker_switches_total", "counter", "Moves from one broker entry to another.");
  out.sample("kscdp_broker_switches_total", "", counts.brokerSwitches);
  out.family("kscdp_http_requests_total", "counter",
             "HTTP exchanges with the jobs interface and the request daemon, by outcome.");
  for (size_t service = 0; service < metrics::kHttpServices; ++service) {
    for (size_t outcome = 0; outcome < metrics::kHttpOutcomes; ++outcome) {
      out.sample("kscdp_http_requests_total",
                 "service=" + labelValue(metrics::kHttpServiceNames[service]) +
                     ",outcome=" + labelValue(metrics::kHttpOutcomeNames[outcome]),
                 counts.httpRequests[service][outcome]);
    }
  }
  out.family("kscdp_http_request_duration_seconds", "histogram", "Duration of each HTTP exchange.");
  for (size_t service = 0; service < metrics::kHttpServices; ++service) {
    out.histogram("kscdp_http_request_duration_seconds", "service=" + labelValue(metrics::kHttpServiceNames[service]),
                  counts.httpDuration[service]);
  }
  out.family("kscdp_evictions_requested_total", "counter", "VMs whose backup the request daemon accepted.");
  out.sample("kscdp_evictions_requested_total", "", counts.evictionsRequested);
  out.family("kscdp_eviction_passes_failed_total", "counter", "Eviction passes that failed.");
  out.sample("kscdp_eviction_passes_failed_total", "", counts.evictionPassesFailed);
  out.family("kscdp_metrics_rewrite_seconds", "gauge",
             "Seconds until this file is rewritten; 0 in its last write, when the engine raises no alerts.");
  out.sample("kscdp_metrics_rewrite_seconds", "", gauges.rewriteSeconds);
  out.family("kscdp_build_info", "gauge", "The library's release; always 1.");
  out.sample("kscdp_build_info", "version=" + labelValue(gauges.version), "1");
  return out.text();
}

}  // namespace standin
