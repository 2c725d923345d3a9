#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "case_table.h"
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

TEST(AlertVocabulary, PriorityAndSeverityTextsByNumber) {
  for (const cases::Row& c : cases::read("alert_vocabulary.cases")) {
    EXPECT_EQ(AlertHelper::getPriority(static_cast<AlertPriority>(std::stoi(c[0]))), c[1]) << c[0];
    EXPECT_EQ(AlertHelper::getSeverity(static_cast<AlertSeverity>(std::stoi(c[0]))), c[2]) << c[0];
  }
}

TEST_F(AlertPublishing, HostServiceAddsThisHostsNameUnlessPresent) {
  const auto attributes = [](const std::string& text) {
    Attributes parsed;
    std::istringstream pairs(text);
    for (std::string pair; std::getline(pairs, pair, ',');)
      parsed[pair.substr(0, pair.find('='))] = pair.substr(pair.find('=') + 1);
    return parsed;
  };
  for (const cases::Row& c : cases::read("host_service.cases")) {
    SCOPED_TRACE(c[0]);
    fake::resetPlatform();
    fake::config.hasHostName = c[1] == "yes";
    AlertServiceData record;
    record.attributes = attributes(c[2]);
    HostServiceImpl host;
    AlertServiceImpl alert;
    host.setNext(&alert);
    host.handleRequest(&record);
    ASSERT_EQ(fake::notifications.sent.size(), 1u);
    EXPECT_EQ(fake::notifications.sent[0].attributes, attributes(c[3]));
    const std::string logged = c[4] == "-" ? "" : "Called Alert (send_notification) for VM: " + c[4] + "\nRetval: 0";
    EXPECT_EQ(fake::logLinesOf(kAlertLog), (std::vector<fake::LogLine>{{4, kAlertLog, logged}}));
  }
}

}  // namespace
