// NotificationSupplier over MQTT: each event becomes one JSON payload that an
// MqttPublisher delivers to the broker.
#include "mqtt_publisher.h"
#include "notification_payload.h"
#include "platform/notification.h"

struct NotificationSupplier::State {
  standin::MqttPublisher publisher;
};

NotificationSupplier::NotificationSupplier() : m_state(new State) {}

NotificationSupplier::~NotificationSupplier() { delete m_state; }

int NotificationSupplier::send_notification(NotificationEvent& event) {
  return m_state->publisher.publish(standin::notificationPayload(event));
}

void NotificationSupplier::shutdown() { m_state->publisher.stop(); }
