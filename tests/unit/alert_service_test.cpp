#include "services/AlertServiceImpl.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "fake_platform.h"
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
  fake::configScript().hostName = "cdp-07.example";
  fake::notificationScript().sendResult = 7;
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
  ASSERT_EQ(fake::sentNotifications().size(), 1u);
  const NotificationEvent& e = fake::sentNotifications()[0].event;
  EXPECT_EQ(std::to_string(e.version) + "|" + e.producerType + "|" + e.producerSubType + "|" + e.notificationType +
                "|" + e.priority + "|" + e.severity + "|" + e.messageKey,
            "1|Keepstone|CDP|CDP Backup Engine|HIGH|ERROR|eventlog.omra.ksu.cdp.eviction.start");
  EXPECT_EQ(e.attributes, completed);
  EXPECT_EQ(fake::logLines(),
            (std::vector<fake::LogLine>{
                {2, "AlertHelper::convertCCTIDToUUID", std::string("Converting CCTID: ") + kCctid + ", UUID: " + kUuid},
                {4, kAlertLog, std::string("Called Alert (send_notification) for VM: ") + kUuid + "\nRetval: 7"}}));
}

TEST_F(AlertPublishing, HostServiceAddsThisHostsNameUnlessPresent) {
  const struct {
    const char* name;
    int readResult;
    bool hasHostName;
    Attributes given;
    Attributes completed;
    const char* loggedVm;  // null: the alert line is empty
  } cases[] = {
      {"no attributes", 0, true, {}, {}, nullptr},
      {"server already present", 0, true, {{"uuid", "12345678a"}, {"server", "engine's own"}},
       {{"server", "engine's own"}, {"uuid", "12345678-a"}}, "12345678-a"},
      {"no uuid", 0, true, {{"jobid", "3"}}, {{"jobid", "3"}, {"server", "cdp-host.example"}}, ""},
      {"no host name", 0, false, {{"uuid", "x"}}, {{"server", ""}, {"uuid", "x"}}, "x"},
      {"unreadable configuration", 2, true, {{"uuid", "x"}}, {{"server", ""}, {"uuid", "x"}}, "x"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fake::resetPlatform();
    fake::configScript().readResult = c.readResult;
    fake::configScript().hasHostName = c.hasHostName;
    AlertServiceData record;
    record.attributes = c.given;
    HostServiceImpl host;
    AlertServiceImpl alert;
    host.setNext(&alert);
    host.handleRequest(&record);
    ASSERT_EQ(fake::sentNotifications().size(), 1u);
    EXPECT_EQ(fake::sentNotifications()[0].event.attributes, c.completed);
    const std::string logged =
        c.loggedVm == nullptr ? "" : std::string("Called Alert (send_notification) for VM: ") + c.loggedVm + "\nRetval: 0";
    EXPECT_EQ(fake::logLinesOf(kAlertLog), (std::vector<fake::LogLine>{{4, kAlertLog, logged}}));
  }
}

TEST_F(AlertPublishing, PriorityAndSeverityTextsComeFromTheLow32Bits) {
  const struct {
    int64_t priority;
    int64_t severity;
    const char* texts;
  } cases[] = {
      {1, 1, "MEDIUM DEBUG"},
      {0, 2, "LOW WARNING"},
      {3, 5, " NOTICE"},
      {-1, 6, " UNKNOWN"},
      {INT32_MAX, -1, " UNKNOWN"},
      {(int64_t{1} << 32) + 2, (int64_t{1} << 32) + 3, "HIGH ERROR"},
  };
  AlertServiceImpl alert;
  for (const auto& c : cases) {
    AlertServiceData record;
    record.priority = c.priority;
    record.severity = c.severity;
    alert.handleRequest(&record);
    const NotificationEvent& event = fake::sentNotifications().back().event;
    EXPECT_EQ(event.priority + " " + event.severity, c.texts) << c.priority << ", " << c.severity;
  }
}

TEST(AlertHelper, InsertsTheUuidDashesIntoAnyText) {
  const struct {
    const char* cctid;
    const char* uuid;
  } cases[] = {
      {kCctid, kUuid},
      {"", ""},
      {"12345678", "12345678"},
      {"0123456789ABCDEF0123456789ABCDEF01", "01234567-89AB-CDEF-0123-456789ABCDEF01"},
      {"01234567-89ab-cdef-0123-456789abcdef", "01234567--89a-b-cd-ef-0-123-456789abcdef"},
  };
  for (const auto& c : cases) EXPECT_EQ(AlertHelper::convertCCTIDToUUID(c.cctid), c.uuid) << c.cctid;
}

}  // namespace
