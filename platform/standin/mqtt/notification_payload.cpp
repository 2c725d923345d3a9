#include "platform/standin/mqtt/notification_payload.h"

#include "platform/standin/mqtt/json_string.h"

namespace standin {
namespace {

void appendStringMember(std::string& out, const char* name, const std::string& value) {
  out += ',';
  appendJsonString(out, name);
  out += ':';
  appendJsonString(out, value);
}

}  // namespace

std::string notificationPayload(const NotificationEvent& event) {
  std::string out = "{\"version\":" + std::to_string(event.version);
  appendStringMember(out, "producerType", event.producerType);
  appendStringMember(out, "producerSubType", event.producerSubType);
  appendStringMember(out, "notificationType", event.notificationType);
  appendStringMember(out, "priority", event.priority);
  appendStringMember(out, "severity", event.severity);
  appendStringMember(out, "messageKey", event.messageKey);
  out += ",\"attributes\":{";
  bool first = true;
  for (const auto& attribute : event.attributes) {
    if (!first) out += ',';
    first = false;
    appendJsonString(out, attribute.first);
    out += ':';
    appendJsonString(out, attribute.second);
  }
  out += "}}";
  return out;
}

}  // namespace standin
