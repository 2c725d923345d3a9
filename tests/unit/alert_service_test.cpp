#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "services/AlertServiceImpl.h"
#include "services/KSServiceException.h"
#include "services/ServiceData.h"

namespace {

using Attributes = std::map<std::string, std::string>;

const char kCctid[] = "0123456789abcdef0123456789abcdef";
const char kUuid[] = "01234567-89ab-cdef-0123-456789abcdef";

// A successor that counts the records it is handed.
class CountingHandler : public KSUServiceImpl {
 public:
  int handleRequest(ServiceData* /*data*/) override {
    ++calls;
    return 99;
  }
  int calls = 0;
};

class AlertPublishing : public ::testing::Test {
 protected:
  void SetUp() override { fake::resetPlatform(); }
  void TearDown() override {
    fake::notificationScript() = fake::NotificationScript{};
    NotificationInterface::destroyInstance();
  }

  // Runs the record through host service -> alert service, as the gateway does.
  int raise(AlertServiceData& record) {
    HostServiceImpl host;
    AlertServiceImpl alert;
    host.setNext(&alert);
    return static_cast<ServiceInterface&>(host).handleRequest(&record);
  }

  static std::unique_ptr<AlertServiceData> alertRecord(int64_t severity, int64_t priority, Attributes attributes) {
    auto record = std::make_unique<AlertServiceData>();
    record->severity = severity;
    record->priority = priority;
    record->messageKey = "eventlog.omra.ksu.cdp.eviction.start";
    record->attributes = std::move(attributes);
    return record;
  }

  static std::vector<fake::LogLine> alertLogLines() { return fake::logLinesOf("AlertServiceImpl::handleRequest"); }
};

TEST_F(AlertPublishing, ChainCompletesTheRecordAndPublishesEveryField) {
  fake::configScript().hostName = "cdp-07.example";
  fake::notificationScript().sendResult = 7;
  auto record = alertRecord(0, 0, {{"uuid", kCctid}, {"jobid", "12345"}});

  EXPECT_EQ(raise(*record), 7);

  const Attributes completed{{"jobid", "12345"}, {"server", "cdp-07.example"}, {"uuid", kUuid}};
  EXPECT_EQ(record->attributes, completed);
  ASSERT_EQ(fake::sentNotifications().size(), 1u);
  const NotificationEvent& event = fake::sentNotifications()[0].event;
  EXPECT_EQ(event.version, 1);
  EXPECT_EQ(event.producerType, "Keepstone");
  EXPECT_EQ(event.producerSubType, "CDP");
  EXPECT_EQ(event.notificationType, "CDP Backup Engine");
  EXPECT_EQ(event.priority, "LOW");
  EXPECT_EQ(event.severity, "INFO");
  EXPECT_EQ(event.messageKey, "eventlog.omra.ksu.cdp.eviction.start");
  EXPECT_EQ(event.attributes, completed);

  const std::vector<fake::LogLine> expectedLog{
      {2, "AlertHelper::convertCCTIDToUUID", std::string("Converting CCTID: ") + kCctid + ", UUID: " + kUuid},
      {4, "AlertServiceImpl::handleRequest",
       std::string("Called Alert (send_notification) for VM: ") + kUuid + "\nRetval: 7"}};
  EXPECT_EQ(fake::logLines(), expectedLog);
}

TEST_F(AlertPublishing, HowTheHostServiceCompletesAttributes) {
  const struct {
    const char* name;
    Attributes given;
    Attributes completed;
    const char* loggedVm;  // null: the alert line is empty
  } cases[] = {
      {"no attributes", {}, {}, nullptr},
      {"server already present", {{"uuid", "12345678a"}, {"server", "engine's own"}},
       {{"server", "engine's own"}, {"uuid", "12345678-a"}}, "12345678-a"},
      {"no uuid", {{"jobid", "3"}}, {{"jobid", "3"}, {"server", "cdp-host.example"}}, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fake::resetPlatform();
    auto record = alertRecord(0, 0, c.given);
    raise(*record);
    EXPECT_EQ(record->attributes, c.completed);
    ASSERT_EQ(fake::sentNotifications().size(), 1u);
    EXPECT_EQ(fake::sentNotifications()[0].event.attributes, c.completed);
    const std::string message =
        c.loggedVm == nullptr ? "" : std::string("Called Alert (send_notification) for VM: ") + c.loggedVm + "\nRetval: 0";
    EXPECT_EQ(alertLogLines(), (std::vector<fake::LogLine>{{4, "AlertServiceImpl::handleRequest", message}}));
    const bool converted = c.given.count("uuid") != 0;
    EXPECT_EQ(fake::logLinesOf("AlertHelper::convertCCTIDToUUID").size(), converted ? 1u : 0u);
  }
}

TEST_F(AlertPublishing, ServerNameComesFromTheHostNameOfTheMasterConfiguration) {
  const struct {
    const char* name;
    int readResult;
    bool hasHostName;
    const char* expected;
  } cases[] = {
      {"configured", 0, true, "cdp-host.example"},
      {"no host name", 0, false, ""},
      {"unreadable configuration", 2, true, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fake::resetPlatform();
    fake::configScript().readResult = c.readResult;
    fake::configScript().hasHostName = c.hasHostName;
    HostServiceImpl host;
    EXPECT_EQ(fake::configReads(), 1);
    AlertServiceData record;
    record.insertAttribute("uuid", "x");
    EXPECT_EQ(host.handleRequest(&record), 0);  // no successor
    EXPECT_EQ(record.attributes, (Attributes{{"server", c.expected}, {"uuid", "x"}}));
  }
}

TEST_F(AlertPublishing, PriorityAndSeverityAreNarrowedTo32BitsBeforeTheirTexts) {
  const struct {
    int64_t priority;
    int64_t severity;
    const char* priorityText;
    const char* severityText;
  } cases[] = {
      {2, 4, "HIGH", "CRITICAL"},
      {9, 6, "", "UNKNOWN"},
      {(int64_t{1} << 32) + 2, (int64_t{1} << 32) + 3, "HIGH", "ERROR"},
  };
  for (const auto& c : cases) {
    auto record = alertRecord(c.severity, c.priority, {});
    AlertServiceImpl alert;
    alert.handleRequest(record.get());
    const NotificationEvent& event = fake::sentNotifications().back().event;
    EXPECT_EQ(event.priority, c.priorityText) << c.priority;
    EXPECT_EQ(event.severity, c.severityText) << c.severity;
  }
}

TEST_F(AlertPublishing, RejectedRecordsTouchNothing) {
  HostServiceImpl host;
  AlertServiceImpl alert;
  CountingHandler successor;
  host.setNext(&successor);
  alert.setNext(&successor);
  EvictionServiceData eviction;
  const std::string notAnAlert =
      "Invalid shared object passed to worker service. Internal error: casting to AlertServiceData failed.";
  const struct {
    const char* name;
    ServiceInterface* handler;
    ServiceData* record;
    std::string message;
  } cases[] = {
      {"host, null", &host, nullptr, "Invalid shared common object passed to worker service"},
      {"host, eviction record", &host, &eviction, notAnAlert},
      {"alert, null", &alert, nullptr, notAnAlert},
      {"alert, eviction record", &alert, &eviction, notAnAlert},
  };
  fake::resetLog();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    try {
      c.handler->handleRequest(c.record);
      ADD_FAILURE() << "no exception";
    } catch (const KSServiceException& e) {
      EXPECT_EQ(e.m_code, 20);
      EXPECT_EQ(e.what(), c.message);
    }
  }
  EXPECT_EQ(successor.calls, 0);
  EXPECT_EQ(fake::suppliersConstructed(), 0);
  EXPECT_TRUE(fake::logLines().empty());

  // A valid record is published, and the alert service still ends the chain.
  fake::notificationScript().sendResult = -3;
  AlertServiceData record;
  EXPECT_EQ(alert.handleRequest(&record), -3);
  EXPECT_EQ(successor.calls, 0);
}

TEST(AlertHelper, PriorityTexts) {
  const struct {
    int32_t value;
    const char* text;
  } cases[] = {{0, "LOW"}, {1, "MEDIUM"}, {2, "HIGH"}, {3, ""}, {-1, ""}, {INT32_MAX, ""}};
  for (const auto& c : cases) {
    EXPECT_EQ(AlertHelper::getPriority(static_cast<AlertPriority>(c.value)), c.text) << c.value;
  }
}

TEST(AlertHelper, SeverityTexts) {
  const struct {
    int32_t value;
    const char* text;
  } cases[] = {{0, "INFO"},     {1, "DEBUG"},  {2, "WARNING"}, {3, "ERROR"},
               {4, "CRITICAL"}, {5, "NOTICE"}, {6, "UNKNOWN"}, {-1, "UNKNOWN"}};
  for (const auto& c : cases) {
    EXPECT_EQ(AlertHelper::getSeverity(static_cast<AlertSeverity>(c.value)), c.text) << c.value;
  }
}

TEST(AlertHelper, ConvertsCctidToUuidAndLogsEachConversion) {
  const struct {
    const char* cctid;
    const char* uuid;
  } cases[] = {
      {"0123456789abcdef0123456789abcdef", "01234567-89ab-cdef-0123-456789abcdef"},
      {"", ""},
      {"12345678", "12345678"},
      {"123456789", "12345678-9"},
      {"0123456789ABCDEF0123456789ABCDEF01", "01234567-89AB-CDEF-0123-456789ABCDEF01"},
      {"01234567-89ab-cdef-0123-456789abcdef", "01234567--89a-b-cd-ef-0-123-456789abcdef"},
  };
  for (const auto& c : cases) {
    fake::resetPlatform();
    EXPECT_EQ(AlertHelper::convertCCTIDToUUID(c.cctid), c.uuid) << c.cctid;
    const fake::LogLine expected{2, "AlertHelper::convertCCTIDToUUID",
                                 std::string("Converting CCTID: ") + c.cctid + ", UUID: " + c.uuid};
    EXPECT_EQ(fake::logLines(), std::vector<fake::LogLine>{expected}) << c.cctid;
  }
}

}  // namespace
