// The wire form of notification events: member order, escaping and the
// repair of bytes that are not UTF-8.
#include <gtest/gtest.h>

#include <string>

#include "platform/standin/notification_payload.h"

namespace {

// The payload of an event whose only free text is its message key.
std::string payloadWithKey(const std::string& key) {
  const NotificationEvent event{1, "Keepstone", "CDP", "CDP Backup Engine", "LOW", "INFO", key, {}};
  return standin::notificationPayload(event);
}

std::string expectedWithKey(const std::string& jsonKey) {
  return "{\"version\":1,\"producerType\":\"Keepstone\",\"producerSubType\":\"CDP\","
         "\"notificationType\":\"CDP Backup Engine\",\"priority\":\"LOW\",\"severity\":\"INFO\","
         "\"messageKey\":\"" +
         jsonKey + "\",\"attributes\":{}}";
}

TEST(NotificationPayload, EscapesAndRepairsText) {
  const struct {
    const char* name;
    std::string text;
    std::string json;  // between the quotes
  } cases[] = {
      {"plain", "eventlog.omra.ksu.cdp.eviction.start", "eventlog.omra.ksu.cdp.eviction.start"},
      {"empty", "", ""},
      {"quote and backslash", "a\"b\\c/d", "a\\\"b\\\\c/d"},
      {"named controls", "\b\f\n\r\t", "\\b\\f\\n\\r\\t"},
      {"other controls", std::string("\x00\x01\x1f\x7f", 4), "\\u0000\\u0001\\u001f\x7f"},
      {"valid two, three and four bytes", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
      {"lone continuation byte", "a\x80z", "a\xEF\xBF\xBDz"},
      {"bytes never in UTF-8", "\xC0\xC1\xF5\xFF", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"overlong slash", "\xC0\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"overlong three bytes", "\xE0\x80\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"surrogate", "\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"above U+10FFFF", "\xF4\x90\x80\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"truncated sequence then quote", "\xE2\x82\"", "\xEF\xBF\xBD\\\""},
      {"truncated at the end", "ok\xF0\x9F\x98", "ok\xEF\xBF\xBD"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(payloadWithKey(c.text), expectedWithKey(c.json)) << c.name;
  }
}

TEST(NotificationPayload, KeepsMemberOrderAndOrdersAttributesByKey) {
  const NotificationEvent event{-2,
                                "p\"t",
                                "",
                                "n",
                                "",
                                "UNKNOWN",
                                "k",
                                {{"uuid", "u"}, {"\xFF", "x"}, {"jobid", "7"}, {"", ""}}};
  EXPECT_EQ(standin::notificationPayload(event),
            "{\"version\":-2,\"producerType\":\"p\\\"t\",\"producerSubType\":\"\",\"notificationType\":\"n\","
            "\"priority\":\"\",\"severity\":\"UNKNOWN\",\"messageKey\":\"k\","
            "\"attributes\":{\"\":\"\",\"jobid\":\"7\",\"uuid\":\"u\",\"\xEF\xBF\xBD\":\"x\"}}");
}

}  // namespace
