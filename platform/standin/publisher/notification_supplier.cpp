// NotificationSupplier over MQTT: each event becomes one JSON payload that an
// MqttPublisher delivers to the broker. While a supplier lives, the metrics
// file is rewritten; its alerts are counted here.
#include "platform/notification.h"
#include "platform/standin/counters/metrics.h"
#include "platform/standin/metrics/writer.h"
#include "platform/standin/mqtt/notification_payload.h"
#include "platform/standin/publisher/mqtt_publisher.h"

namespace {

// The alert the library raises for an eviction pass that failed.
const char kEvictionFailedKey[] = "eventlog.omra.ksu.cdp.eviction.failed";

}  // namespace

struct NotificationSupplier::State {
  standin::MqttPublisher publisher;
  standin::MetricsWriterUse metricsWriter;  // after the publisher: its last write follows the publisher's stop
};

NotificationSupplier::NotificationSupplier() : m_state(new State) {}

NotificationSupplier::~NotificationSupplier() { delete m_state; }

int NotificationSupplier::send_notification(NotificationEvent& event) {
  const int result = m_state->publisher.publish(standin::notificationPayload(event));
  if (result != standin::MqttPublisher::kQueued) return result;
  standin::metrics::alertRaised();
  if (event.messageKey == kEvictionFailedKey) standin::metrics::evictionPassFailed();
  return result;
}

void NotificationSupplier::shutdown() {
  m_state->publisher.stop();
  m_state->metricsWriter.release();
}
