// The JSON string writer of every string of a payload: escapes and UTF-8.
#include "platform/standin/mqtt/json_string.h"

#include <gtest/gtest.h>

#include <string>

#include "case_table.h"
#include "platform/standin/mqtt/notification_payload.h"

namespace {

TEST(JsonString, EscapesControlsAndReplacesEveryIllFormedSequence) {
  for (const cases::Row& c : cases::read("json_strings.cases")) {
    std::string out = "prefix";
    standin::appendJsonString(out, c[0]);
    EXPECT_EQ(out, "prefix\"" + c[1] + "\"") << c[1];
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
