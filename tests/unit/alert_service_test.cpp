#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "services/AlertServiceImpl.h"
#include "services/ServiceData.h"

namespace {

using Attributes = std::map<std::string, std::string>;

const char kAlertLog[] = "AlertServiceImpl::handleRequest";
const char kCctid[] = "0123456789abcdef0123456789abcdef";
const char kUuid[] = "01234567-89ab-cdef-0123-456789abcdef";

class AlertPublishing : public ::testing::Test {
 protected:
  void SetUp() override { fake::resetPlatform(); }
  void TearDown() override { NotificationInterface::destroyInstance(); }
};

TEST_F(AlertPublishing, ChainCompletesTheRecordPublishesItAndEndsThere) {
  fake::config.hostName = "cdp-07.example";
  fake::notifications.sendResult = 7;
  AlertServiceData record;
  record.severity = 3;
  record.priority = 2;
  record.messageKey = "eventlog.omra.ksu.cdp.eviction.start";
  record.attributes = {{"uuid", kCctid}, {"jobid", "12345"}};
  HostServiceImpl host;
  AlertServiceImpl alert, neverReached;
  host.setNext(&alert)->setNext(&neverReached);

  EXPECT_EQ(static_cast<ServiceInterface&>(host).handleRequest(&record), 7);

  const Attributes completed{{"jobid", "12345"}, {"server", "cdp-07.example"}, {"uuid", kUuid}};
  EXPECT_EQ(record.attributes, completed);
  ASSERT_EQ(fake::notifications.sent.size(), 1u);
  const NotificationEvent& e = fake::notifications.sent[0];
  EXPECT_EQ(std::to_string(e.version) + "|" + e.producerType + "|" + e.producerSubType + "|" + e.notificationType +
                "|" + e.priority + "|" + e.severity + "|" + e.messageKey,
            "1|Keepstone|CDP|CDP Backup Engine|HIGH|ERROR|eventlog.omra.ksu.cdp.eviction.start");
  EXPECT_EQ(e.attributes, completed);
  EXPECT_EQ(fake::logLines,
            (std::vector<fake::LogLine>{
                {2, "AlertHelper::convertCCTIDToUUID", std::string("Converting CCTID: ") + kCctid + ", UUID: " + kUuid},
                {4, kAlertLog, std::string("Called Alert (send_notification) for VM: ") + kUuid + "\nRetval: 7"}}));
}

// The numbering is the engine's: DEBUG is 1 and NOTICE 5. The fallbacks
// differ: no text for an unknown priority, "UNKNOWN" for an unknown severity.
TEST(AlertVocabulary, PriorityAndSeverityTextsByNumber) {
  const struct {
    int32_t value;
    const char* priority;
    const char* severity;
  } cases[] = {
      {0, "LOW", "INFO"}, {1, "MEDIUM", "DEBUG"}, {2, "HIGH", "WARNING"},
      {3, "", "ERROR"},   {4, "", "CRITICAL"},    {5, "", "NOTICE"},
      {6, "", "UNKNOWN"}, {-1, "", "UNKNOWN"},    {INT32_MIN, "", "UNKNOWN"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(AlertHelper::getPriority(static_cast<AlertPriority>(c.value)), c.priority) << c.value;
    EXPECT_EQ(AlertHelper::getSeverity(static_cast<AlertSeverity>(c.value)), c.severity) << c.value;
  }
}

TEST_F(AlertPublishing, HostServiceAddsThisHostsNameUnlessPresent) {
  const struct {
    const char* name;
    bool hasHostName;
    Attributes given;
    Attributes completed;
    const char* loggedVm;  // null: the alert line is empty
  } cases[] = {
      {"no attributes", true, {}, {}, nullptr},
      {"server already present",
       true,
       {{"uuid", "12345678a"}, {"server", "engine's own"}},
       {{"server", "engine's own"}, {"uuid", "12345678-a"}},
       "12345678-a"},
      {"no uuid", true, {{"jobid", "3"}}, {{"jobid", "3"}, {"server", "cdp-host.example"}}, ""},
      {"no host name", false, {{"uuid", "x"}}, {{"server", ""}, {"uuid", "x"}}, "x"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fake::resetPlatform();
    fake::config.hasHostName = c.hasHostName;
    AlertServiceData record;
    record.attributes = c.given;
    HostServiceImpl host;
    AlertServiceImpl alert;
    host.setNext(&alert);
    host.handleRequest(&record);
    ASSERT_EQ(fake::notifications.sent.size(), 1u);
    EXPECT_EQ(fake::notifications.sent[0].attributes, c.completed);
    const std::string called = "Called Alert (send_notification) for VM: ";
    const std::string logged = c.loggedVm == nullptr ? "" : called + c.loggedVm + "\nRetval: 0";
    EXPECT_EQ(fake::logLinesOf(kAlertLog), (std::vector<fake::LogLine>{{4, kAlertLog, logged}}));
  }
}

}  // namespace
