// The JSON string writer of every string of a payload: escapes and UTF-8.
#include "platform/standin/json_string.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/standin/notification_payload.h"

namespace {

TEST(JsonString, EscapesControlsAndReplacesEveryIllFormedSequence) {
  const std::string kFffd = "\xEF\xBF\xBD";
  const struct {
    std::string bytes;
    std::string json;  // between the quotes
  } cases[] = {
      {"", ""},
      {"a\"b\\c/d", "a\\\"b\\\\c/d"},
      {"\b\f\n\r\t", "\\b\\f\\n\\r\\t"},
      {std::string("\x00\x01\x1f\x7f", 4), "\\u0000\\u0001\\u001f\x7f"},
      {"\xC2\x80\xDF\xBF", "\xC2\x80\xDF\xBF"},  // two-byte bounds
      {"\xE0\xA0\x80\xED\x9F\xBF\xEF\xBF\xBF", "\xE0\xA0\x80\xED\x9F\xBF\xEF\xBF\xBF"},
      {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
      {"a\x80z", "a" + kFffd + "z"},                                    // lone continuation
      {"\xC0\xAF\xC1\xBF", kFffd + kFffd + kFffd + kFffd},              // overlong leads
      {"\xE0\x9F\xBF", kFffd + kFffd + kFffd},                          // overlong three-byte
      {"\xED\xA0\x80", kFffd + kFffd + kFffd},                          // surrogate
      {"\xF0\x8F\xBF\xBF", kFffd + kFffd + kFffd + kFffd},              // overlong four-byte
      {"\xF4\x90\x80\x80\xF5", kFffd + kFffd + kFffd + kFffd + kFffd},  // beyond U+10FFFF
      {"\xE2\x82\"ok\xF0\x9F\x98", kFffd + "\\\"ok" + kFffd},           // truncated, one U+FFFD each
      {"\xC3", kFffd},
  };
  for (const auto& c : cases) {
    std::string out = "prefix";
    standin::appendJsonString(out, c.bytes);
    EXPECT_EQ(out, "prefix\"" + c.json + "\"") << c.json;
  }
}

// Keys, attribute names and values alike; attributes in name order.
TEST(JsonString, WritesEveryStringOfAPayload) {
  const NotificationEvent event{2,     "P",    "S",        "T",
                                "LOW", "INFO", "a\"b\x80", {{"uuid", "u"}, {"\xFF", "x\n"}, {"jobid", "7"}}};
  EXPECT_EQ(standin::notificationPayload(event),
            "{\"version\":2,\"producerType\":\"P\",\"producerSubType\":\"S\",\"notificationType\":\"T\","
            "\"priority\":\"LOW\",\"severity\":\"INFO\",\"messageKey\":\"a\\\"b\xEF\xBF\xBD\","
            "\"attributes\":{\"jobid\":\"7\",\"uuid\":\"u\",\"\xEF\xBF\xBD\":\"x\\n\"}}");
}

}  // namespace
