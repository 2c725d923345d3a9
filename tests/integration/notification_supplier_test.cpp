// The stand-in NotificationSupplier against a real mosquitto broker and a
// real subscriber.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "mosquitto_broker.h"
#include "mqtt_subscriber.h"
#include "platform/notification.h"
#include "platform/standin/notification_payload.h"
#include "standin_environment.h"

namespace {

using testbed::MosquittoBroker;
using testbed::MqttSubscriber;
using testbed::withoutRepeats;
using Messages = MqttSubscriber::Messages;

const char kTopic[] = "keepstone/notifications";
const std::chrono::seconds kDeliveryTimeout(20);

NotificationEvent numberedEvent(int number) {
  return NotificationEvent{1,      "Keepstone", "CDP", "CDP Backup Engine", "LOW", "INFO",
                           "eventlog.omra.ksu.cdp.fullsync.done",
                           {{"seq", std::to_string(number)}, {"uuid", "01234567-89ab-cdef-0123-456789abcdef"}}};
}

// Sends events first..last, each of which must be accepted, and returns their payloads.
Messages sendNumbered(NotificationSupplier& supplier, int first, int last) {
  Messages payloads;
  for (int number = first; number <= last; ++number) {
    NotificationEvent event = numberedEvent(number);
    EXPECT_EQ(supplier.send_notification(event), 0) << number;
    payloads.push_back(standin::notificationPayload(event));
  }
  return payloads;
}

Messages concat(Messages head, const Messages& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

// Waits until the subscriber has every payload of `expected` at least once.
Messages waitForDistinct(MqttSubscriber& subscriber, const Messages& expected) {
  return withoutRepeats(subscriber.waitUntil(
      [&](const Messages& received) { return withoutRepeats(received).size() >= expected.size(); },
      kDeliveryTimeout));
}

std::string configFor(const std::string& broker) {
  return "server = master.invalid\nbroker = " + broker + "\n";
}

// A broker with a subscriber to the notification topic, and the master
// configuration pointing the stand-in at it.
struct BrokerWithSubscriber {
  explicit BrokerWithSubscriber(MosquittoBroker::Options options = MosquittoBroker::Options())
      : broker(options), subscriber(broker.port(), kTopic) {
    integration::writeConfig(configFor(broker.address()));
  }

  MosquittoBroker broker;
  MqttSubscriber subscriber;
};

const MosquittoBroker::Options kKeepSessions{true};

class NotificationSupplierTest : public ::testing::Test {
 protected:
  // What the stand-in has logged since the test began.
  std::string logSinceStart() const { return integration::logText().substr(logStart_); }

  const size_t logStart_ = integration::logText().size();
};

TEST_F(NotificationSupplierTest, PublishesExactPayloadsInOrder) {
  BrokerWithSubscriber rig;
  NotificationSupplier supplier;

  std::vector<NotificationEvent> events{
      {1, "Keepstone", "CDP", "CDP Backup Engine", "LOW", "INFO", "eventlog.omra.ksu.cdp.eviction.start",
       {{"uuid", "01234567-89ab-cdef-0123-456789abcdef"}, {"jobid", "12345"}, {"server", "cdp-07"}}},
      {1, "Keepstone", "CDP", "CDP Backup Engine", "", "UNKNOWN", "say \"hi\" \\ \t\n\x01",
       {{"caf\xC3\xA9", "\xFF ok \xE2\x82\xAC \xE2\x82"}}},
      {1, "Keepstone", "CDP", "CDP Backup Engine", "HIGH", "CRITICAL", "eventlog.omra.ksu.cdp.storage.nospace", {}},
  };
  const Messages expected{
      R"({"version":1,"producerType":"Keepstone","producerSubType":"CDP","notificationType":"CDP Backup Engine",)"
      R"("priority":"LOW","severity":"INFO","messageKey":"eventlog.omra.ksu.cdp.eviction.start",)"
      R"("attributes":{"jobid":"12345","server":"cdp-07","uuid":"01234567-89ab-cdef-0123-456789abcdef"}})",
      R"({"version":1,"producerType":"Keepstone","producerSubType":"CDP","notificationType":"CDP Backup Engine",)"
      R"("priority":"","severity":"UNKNOWN","messageKey":"say \"hi\" \\ \t\n\u0001",)"
      "\"attributes\":{\"caf\xC3\xA9\":\"\xEF\xBF\xBD ok \xE2\x82\xAC \xEF\xBF\xBD\"}}",
      R"({"version":1,"producerType":"Keepstone","producerSubType":"CDP","notificationType":"CDP Backup Engine",)"
      R"("priority":"HIGH","severity":"CRITICAL","messageKey":"eventlog.omra.ksu.cdp.storage.nospace","attributes":{}})",
  };
  for (NotificationEvent& event : events) EXPECT_EQ(supplier.send_notification(event), 0);

  EXPECT_EQ(rig.subscriber.waitForCount(expected.size(), kDeliveryTimeout), expected);
  supplier.shutdown();
  EXPECT_EQ(logSinceStart().find(" 16 NotificationSupplier"), std::string::npos) << logSinceStart();
}

TEST_F(NotificationSupplierTest, EventsRaisedWhileTheBrokerIsDownGoOutWhenItIsBack) {
  BrokerWithSubscriber rig(kKeepSessions);
  NotificationSupplier supplier;

  const Messages connected = sendNumbered(supplier, 1, 3);
  ASSERT_EQ(rig.subscriber.waitForCount(connected.size(), kDeliveryTimeout), connected);
  const Messages burst = sendNumbered(supplier, 4, 1000);  // the broker stops while these are on their way
  rig.broker.stop();
  const Messages during = sendNumbered(supplier, 1001, 1050);
  rig.broker.start();
  const Messages after = sendNumbered(supplier, 1051, 1060);

  const Messages expected = concat(concat(concat(connected, burst), during), after);
  EXPECT_EQ(waitForDistinct(rig.subscriber, expected), expected);
  EXPECT_NE(logSinceStart().find(" 16 NotificationSupplier: lost the connection to broker " + rig.broker.address()),
            std::string::npos)
      << logSinceStart();
}

TEST_F(NotificationSupplierTest, EventsWaitForABrokerThatIsNotUpYet) {
  BrokerWithSubscriber rig(kKeepSessions);
  rig.broker.stop();
  NotificationSupplier supplier;

  const Messages waiting = sendNumbered(supplier, 1, 20);
  rig.broker.start();

  EXPECT_EQ(waitForDistinct(rig.subscriber, waiting), waiting);
  EXPECT_NE(logSinceStart().find(" 16 NotificationSupplier: cannot reach broker " + rig.broker.address()), std::string::npos)
      << logSinceStart();
}

TEST_F(NotificationSupplierTest, ShutdownDeliversWhatIsWaiting) {
  BrokerWithSubscriber rig(kKeepSessions);
  NotificationSupplier supplier;
  const Messages first = sendNumbered(supplier, 0, 0);
  ASSERT_EQ(rig.subscriber.waitForCount(1, kDeliveryTimeout), first);

  rig.broker.stop();
  const Messages waiting = sendNumbered(supplier, 1, 300);
  rig.broker.start();
  supplier.shutdown();

  EXPECT_EQ(logSinceStart().find("not delivered"), std::string::npos) << logSinceStart();
  const Messages expected = concat(first, waiting);
  EXPECT_EQ(waitForDistinct(rig.subscriber, expected), expected);

  NotificationEvent late = numberedEvent(301);
  EXPECT_NE(supplier.send_notification(late), 0);
  supplier.shutdown();
}

TEST_F(NotificationSupplierTest, WithoutABrokerRefusesBeyondTenThousandAndShutdownGivesUpAfterFiveSeconds) {
  const std::string nowhere = "127.0.0.1:" + std::to_string(testbed::freeLoopbackPort());
  integration::writeConfig(configFor(nowhere));
  auto supplier = std::make_unique<NotificationSupplier>();

  NotificationEvent event = numberedEvent(1);
  for (int i = 0; i < 10000; ++i) ASSERT_EQ(supplier->send_notification(event), 0) << i;
  EXPECT_NE(supplier->send_notification(event), 0);
  EXPECT_NE(supplier->send_notification(event), 0);

  const auto started = std::chrono::steady_clock::now();
  supplier->shutdown();
  const auto waited = std::chrono::steady_clock::now() - started;
  EXPECT_GE(waited, std::chrono::milliseconds(4900));
  EXPECT_LT(waited, std::chrono::seconds(30));  // bounded, whatever the broker does
  supplier.reset();

  const std::string text = logSinceStart();
  EXPECT_NE(text.find(" 16 NotificationSupplier: cannot reach broker " + nowhere), std::string::npos) << text;
  EXPECT_NE(text.find(" 16 NotificationSupplier: refusing events: 10000 events are waiting for the broker\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("refusing events"), text.rfind("refusing events")) << "one line per run of refusals";
  EXPECT_NE(text.find(" 16 NotificationSupplier: 10000 events were not delivered: broker " + nowhere),
            std::string::npos)
      << text;
}

}  // namespace
