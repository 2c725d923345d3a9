// The stand-in NotificationSupplier against a real mosquitto broker and a
// real subscriber.
#include <gmock/gmock.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "mosquitto_broker.h"
#include "mqtt_subscriber.h"
#include "platform/notification.h"
#include "platform/standin/broker_address.h"
#include "platform/standin/notification_payload.h"
#include "standin_environment.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

using testbed::MosquittoBroker;
using testbed::MqttSubscriber;
using Messages = MqttSubscriber::Messages;

const std::chrono::seconds kDeliveryTimeout(20);

NotificationEvent eventWithKey(const std::string& key, const std::map<std::string, std::string>& attributes = {}) {
  return NotificationEvent{1, "Keepstone", "CDP", "CDP Backup Engine", "LOW", "INFO", key, attributes};
}

// The wire form of such an event, with `key` and `attributes` as JSON text.
std::string payloadWithKey(const std::string& key, const std::string& attributes = "") {
  return R"({"version":1,"producerType":"Keepstone","producerSubType":"CDP","notificationType":"CDP Backup Engine",)"
         R"("priority":"LOW","severity":"INFO","messageKey":")" +
         key + R"(","attributes":{)" + attributes + "}}";
}

// Sends events first..last, each of which must be accepted, and adds their payloads to `sent`.
void sendNumbered(NotificationSupplier& supplier, int first, int last, Messages& sent) {
  for (int number = first; number <= last; ++number) {
    NotificationEvent event = eventWithKey("eventlog.omra.ksu.cdp.fullsync.done", {{"seq", std::to_string(number)}});
    EXPECT_EQ(supplier.send_notification(event), 0) << number;
    sent.push_back(standin::notificationPayload(event));
  }
}

// A broker with a subscriber to the notification topic, and the master
// configuration pointing the stand-in at it.
struct BrokerWithSubscriber {
  explicit BrokerWithSubscriber(bool keepSessions) : broker({keepSessions}), subscriber(broker.port(), kTopic) {
    integration::writeConfig("server = master.invalid\nbroker = " + broker.address() + "\n");
  }

  // Waits until the subscriber has every payload of `expected` at least once.
  Messages receivedOnce(const Messages& expected) {
    return testbed::withoutRepeats(subscriber.waitUntil(
        [&](const Messages& got) { return testbed::withoutRepeats(got).size() >= expected.size(); }, kDeliveryTimeout));
  }

  static constexpr const char* kTopic = "keepstone/notifications";
  MosquittoBroker broker;
  MqttSubscriber subscriber;
};

using NotificationSupplierTest = integration::StandinTest;

TEST_F(NotificationSupplierTest, PublishesExactPayloadsInOrder) {
  const struct {
    std::string text;
    std::string json;
  } keys[] = {
      {"eventlog.omra.ksu.cdp.eviction.start", "eventlog.omra.ksu.cdp.eviction.start"},
      {"", ""},
      {"a\"b\\c/d", "a\\\"b\\\\c/d"},
      {"\b\f\n\r\t", "\\b\\f\\n\\r\\t"},
      {std::string("\x00\x01\x1f\x7f", 4), "\\u0000\\u0001\\u001f\x7f"},
      {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
      {"a\x80z", "a\xEF\xBF\xBDz"},                                              // lone continuation
      {"\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},                  // surrogate
      {"\xE2\x82\"ok\xF0\x9F\x98", "\xEF\xBF\xBD\\\"ok\xEF\xBF\xBD"},            // truncated sequences
  };
  BrokerWithSubscriber rig(false);
  NotificationSupplier supplier;
  Messages expected;
  for (const auto& key : keys) {
    NotificationEvent event = eventWithKey(key.text);
    EXPECT_EQ(supplier.send_notification(event), 0);
    expected.push_back(payloadWithKey(key.json));
  }
  NotificationEvent attributed = eventWithKey("k", {{"uuid", "u"}, {"\xFF", "x"}, {"jobid", "7"}});
  EXPECT_EQ(supplier.send_notification(attributed), 0);
  expected.push_back(payloadWithKey("k", "\"jobid\":\"7\",\"uuid\":\"u\",\"\xEF\xBF\xBD\":\"x\""));

  EXPECT_EQ(rig.subscriber.waitForCount(expected.size(), kDeliveryTimeout), expected);
  supplier.shutdown();
  EXPECT_THAT(newLog(), Not(HasSubstr(" 16 NotificationSupplier")));
}

TEST_F(NotificationSupplierTest, NothingIsLostWhileTheBrokerIsDown) {
  BrokerWithSubscriber rig(true);
  rig.broker.stop();
  NotificationSupplier supplier;
  Messages sent;
  sendNumbered(supplier, 1, 20, sent);  // before the broker was ever reached
  rig.broker.start();
  ASSERT_EQ(rig.receivedOnce(sent), sent);
  sendNumbered(supplier, 21, 1000, sent);  // the broker stops while these are on their way
  rig.broker.stop();
  sendNumbered(supplier, 1001, 1050, sent);
  rig.broker.start();
  sendNumbered(supplier, 1051, 1060, sent);

  EXPECT_EQ(rig.receivedOnce(sent), sent);
  EXPECT_THAT(newLog(), HasSubstr(" 16 NotificationSupplier: cannot reach broker " + rig.broker.address()));
  EXPECT_THAT(newLog(), HasSubstr(" 16 NotificationSupplier: lost the connection to broker " + rig.broker.address()));
}

TEST_F(NotificationSupplierTest, ShutdownDeliversWhatIsWaiting) {
  BrokerWithSubscriber rig(true);
  rig.broker.stop();
  NotificationSupplier supplier;
  Messages waiting;
  sendNumbered(supplier, 1, 300, waiting);
  rig.broker.start();
  supplier.shutdown();

  EXPECT_THAT(newLog(), Not(HasSubstr("not delivered")));
  EXPECT_EQ(rig.receivedOnce(waiting), waiting);
  NotificationEvent late = eventWithKey("late");
  EXPECT_NE(supplier.send_notification(late), 0);
}

TEST_F(NotificationSupplierTest, WithoutABrokerRefusesBeyondTenThousandAndShutdownGivesUpAfterFiveSeconds) {
  const std::string nowhere = "127.0.0.1:" + std::to_string(testbed::freeLoopbackPort());
  integration::writeConfig("server = master.invalid\nbroker = " + nowhere + "\n");
  auto supplier = std::make_unique<NotificationSupplier>();

  NotificationEvent event = eventWithKey("k");
  for (int i = 0; i < 10000; ++i) ASSERT_EQ(supplier->send_notification(event), 0) << i;
  EXPECT_NE(supplier->send_notification(event), 0);
  EXPECT_NE(supplier->send_notification(event), 0);

  const auto started = std::chrono::steady_clock::now();
  supplier->shutdown();
  const auto waited = std::chrono::steady_clock::now() - started;
  EXPECT_GE(waited, std::chrono::milliseconds(4900));
  EXPECT_LT(waited, std::chrono::seconds(30));  // bounded, whatever the broker does
  supplier.reset();

  const std::string log = newLog();
  EXPECT_THAT(log, HasSubstr(" 16 NotificationSupplier: refusing events: 10000 events are waiting for the broker\n"));
  EXPECT_EQ(log.find("refusing events"), log.rfind("refusing events")) << "one line per run of refusals";
  EXPECT_THAT(log, HasSubstr(" 16 NotificationSupplier: 10000 events were not delivered: broker " + nowhere));
}

TEST(BrokerAddress, ComesFromTheConfigurationFile) {
  const struct {
    const char* config;
    const char* host;  // null: no address, and an error naming the file
    int port;
  } cases[] = {
      {"server = m\nbroker = 10.0.0.9:18830\n", "10.0.0.9", 18830},
      {"server = m\nbroker = [::1]:1884\n", "::1", 1884},
      {"server = master.example\nserver = media.example\n", "master.example", 1883},
      {"server = m\nbroker = m:65536\n", nullptr, 0},
  };
  for (const auto& c : cases) {
    integration::writeConfig(c.config);
    standin::BrokerAddress address;
    std::string error;
    ASSERT_EQ(standin::readBrokerAddress(address, error), c.host != nullptr) << c.config;
    if (c.host == nullptr) {
      EXPECT_THAT(error, HasSubstr("keepstone.conf")) << c.config;
    } else {
      EXPECT_EQ(address.host + ":" + std::to_string(address.port), c.host + (":" + std::to_string(c.port)));
    }
  }
}

}  // namespace
