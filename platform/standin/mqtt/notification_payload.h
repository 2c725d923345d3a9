// The wire form of a notification event on the broker.
#ifndef KSCDP_PLATFORM_STANDIN_MQTT_NOTIFICATION_PAYLOAD_H_
#define KSCDP_PLATFORM_STANDIN_MQTT_NOTIFICATION_PAYLOAD_H_

#include <string>

#include "platform/notification.h"

namespace standin {

// One compact JSON object, members in this order: "version" (number),
// "producerType", "producerSubType", "notificationType", "priority",
// "severity", "messageKey" (strings), "attributes" (object of strings in the
// event's key order). Bytes that are not UTF-8 are published as U+FFFD.
std::string notificationPayload(const NotificationEvent& event);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_MQTT_NOTIFICATION_PAYLOAD_H_
