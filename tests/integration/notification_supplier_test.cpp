// The stand-in NotificationSupplier against a real mosquitto broker and a
// real subscriber.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <mosquitto.h>
#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "mosquitto_broker.h"
#include "mqtt_subscriber.h"
#include "platform/notification.h"
#include "platform/standin/broker_settings.h"
#include "platform/standin/notification_payload.h"
#include "standin_environment.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

using testbed::MosquittoBroker;
using testbed::MqttSubscriber;
using Messages = MqttSubscriber::Messages;

const std::chrono::seconds kDeliveryTimeout(20);

// Armed, the network thread's connection attempt throws, as a failure
// nobody foresaw would; unarmed, libmosquitto's own function runs.
std::atomic<bool> g_connectThrows{false};

}  // namespace

extern "C" int mosquitto_connect_async(struct mosquitto* client, const char* host, int port, int keepAlive) {
  if (g_connectThrows) throw std::runtime_error("connect failed in a test");
  using Connect = int (*)(struct mosquitto*, const char*, int, int);
  static const auto real = reinterpret_cast<Connect>(dlsym(RTLD_NEXT, "mosquitto_connect_async"));
  return real(client, host, port, keepAlive);
}

namespace {

NotificationEvent eventWithKey(const std::string& key, const std::map<std::string, std::string>& attributes = {}) {
  return NotificationEvent{1, "Keepstone", "CDP", "CDP Backup Engine", "LOW", "INFO", key, attributes};
}

// The wire form of such an event, with `key` and `attributes` as JSON text.
std::string payloadWithKey(const std::string& key, const std::string& attributes = "") {
  return R"({"version":1,"producerType":"Keepstone","producerSubType":"CDP","notificationType":"CDP Backup Engine",)"
         R"("priority":"LOW","severity":"INFO","messageKey":")" +
         key + R"(","attributes":{)" + attributes + "}}";
}

// Adds the payloads of events first..last of a numbered series, as
// kscdp_alert_raiser raises it too, to `sent`, after sending each through
// `supplier` (when there is one), which must accept it.
void sendNumbered(NotificationSupplier* supplier, int first, int last, Messages& sent) {
  for (int number = first; number <= last; ++number) {
    NotificationEvent event = eventWithKey("eventlog.omra.ksu.cdp.fullsync.done", {{"seq", std::to_string(number)}});
    EXPECT_TRUE(supplier == nullptr || supplier->send_notification(event) == 0) << number;
    sent.push_back(standin::notificationPayload(event));
  }
}

// An outbox file of the running test's own.
std::string testOutbox() {
  return integration::scratchPath(std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + ".db");
}

// A broker with a subscriber to the notification topic, and the master
// configuration pointing the stand-in at it, with `outbox` as the outbox key.
struct BrokerWithSubscriber {
  explicit BrokerWithSubscriber(const MosquittoBroker::Options& options, const std::string& outbox = testOutbox())
      : broker(options), subscriber(broker.plainPort(), kTopic) {
    integration::writeConfig("server = master.invalid\nbroker = " + broker.address() + "\noutbox = " + outbox + "\n");
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

// kscdp_alert_raiser, running, once it has handed every event over.
struct Raiser {
  FILE* output;  // pclose() waits for it
  pid_t pid;
  long accepted;
};

Raiser startRaiser(const std::string& arguments, const std::string& logFile) {
  const std::string command = "KSU_LOG_FILE=" + logFile + " exec " KSCDP_ALERT_RAISER_PATH " " + arguments;
  Raiser raiser{popen(command.c_str(), "r"), -1, -1};
  if (raiser.output == nullptr || std::fscanf(raiser.output, "accepted %ld pid %d", &raiser.accepted, &raiser.pid) != 2)
    throw std::runtime_error("cannot run " + command);
  return raiser;
}

class NotificationSupplierTest : public integration::StandinTest {
 protected:
  // Waits up to 10 s for `text` to appear in the log of this test.
  bool logShows(const std::string& text) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (newLog().find(text) == std::string::npos) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }
};

// Keys and attribute names go through the JSON string writer; attributes
// come out in name order.
TEST_F(NotificationSupplierTest, PublishesExactPayloadsInOrder) {
  BrokerWithSubscriber rig({});
  NotificationSupplier supplier;
  NotificationEvent plain = eventWithKey("eventlog.omra.ksu.cdp.eviction.start");
  NotificationEvent escaped = eventWithKey("a\"b\x80", {{"uuid", "u"}, {"\xFF", "x"}, {"jobid", "7"}});
  EXPECT_EQ(supplier.send_notification(plain), 0);
  EXPECT_EQ(supplier.send_notification(escaped), 0);
  const Messages expected = {payloadWithKey("eventlog.omra.ksu.cdp.eviction.start"),
                             payloadWithKey("a\\\"b\xEF\xBF\xBD", "\"jobid\":\"7\",\"uuid\":\"u\",\"\xEF\xBF\xBD\":\"x\"")};
  EXPECT_EQ(rig.subscriber.waitForCount(expected.size(), kDeliveryTimeout), expected);
  supplier.shutdown();
  EXPECT_THAT(newLog(), Not(HasSubstr(" 16 NotificationSupplier")));
}

TEST_F(NotificationSupplierTest, NothingIsLostWhileTheBrokerIsDown) {
  BrokerWithSubscriber rig({true, "", "", ""});
  rig.broker.stop();
  NotificationSupplier supplier;
  Messages sent;
  sendNumbered(&supplier, 1, 20, sent);  // before the broker was ever reached
  rig.broker.start();
  ASSERT_EQ(rig.receivedOnce(sent), sent);
  sendNumbered(&supplier, 21, 5000, sent);  // the broker stops while these are on their way
  rig.broker.stop();
  sendNumbered(&supplier, 5001, 5050, sent);
  rig.broker.start();
  sendNumbered(&supplier, 5051, 10000, sent);
  ASSERT_EQ(rig.receivedOnce(sent), sent);
  sendNumbered(&supplier, 10001, 10020, sent);
  supplier.shutdown();  // shutdown delivers what waits

  EXPECT_EQ(rig.receivedOnce(sent), sent);
  EXPECT_THAT(newLog(), HasSubstr(" 16 NotificationSupplier: cannot reach broker " + rig.broker.address()));
  EXPECT_THAT(newLog(), HasSubstr(" 16 NotificationSupplier: lost the connection to broker " + rig.broker.address()));
  EXPECT_THAT(newLog(), Not(HasSubstr("not delivered")));
  NotificationEvent late = eventWithKey("late");
  EXPECT_NE(supplier.send_notification(late), 0);
}

TEST_F(NotificationSupplierTest, WithoutABrokerRefusesBeyondTenThousandAndShutdownGivesUpAfterFiveSeconds) {
  const std::string nowhere = "127.0.0.1:" + std::to_string(testbed::freeLoopbackPort());
  integration::writeConfig("server = master.invalid\nbroker = " + nowhere + "\noutbox = none\n");
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

TEST_F(NotificationSupplierTest, OutboxCarriesEventsOfAKilledProcessToTheNextPublisherAheadOfItsOwn) {
  BrokerWithSubscriber rig({true, "", "", ""});
  rig.broker.stop();
  const Raiser raiser = startRaiser("1 100 --then-wait", integration::scratchPath("killed.log"));
  kill(raiser.pid, SIGKILL);
  pclose(raiser.output);
  ASSERT_EQ(raiser.accepted, 100);
  Messages sent;
  sendNumbered(nullptr, 1, 100, sent);
  {
    NotificationSupplier whileTheBrokerIsAway;
    sendNumbered(&whileTheBrokerIsAway, 101, 102, sent);
    whileTheBrokerIsAway.shutdown();
  }
  EXPECT_THAT(newLog(), HasSubstr(" 16 NotificationSupplier: 102 events were not acknowledged by broker " +
                                  rig.broker.address() + " within 5 s of shutdown: they wait in the outbox " +
                                  testOutbox() + " for the next start\n"));
  rig.broker.start();
  NotificationSupplier next;
  sendNumbered(&next, 103, 105, sent);
  EXPECT_EQ(rig.receivedOnce(sent), sent);
}

TEST_F(NotificationSupplierTest, AnOutboxThatCannotBeUsedLeavesAlertsFlowingThroughMemory) {
  const std::string blocker = integration::scratchPath("a-file");
  std::ofstream(blocker) << "not a directory";
  const std::string damaged = integration::scratchPath("damaged.db");
  const std::string garbage(10000, 'x');
  const struct {
    std::string outbox;
    bool holdIt;       // another publisher has it open
    bool damageIt;     // the file is not a database
    std::string logs;  // level 16
  } cases[] = {
      {blocker + "/outbox.db", false, false, "cannot use the outbox " + blocker + "/outbox.db: cannot create its directory"},
      {testOutbox(), true, false, "cannot use the outbox " + testOutbox() + ": another publisher on this host"},
      {damaged, false, true, "the outbox " + damaged + " was damaged (file is not a database): set aside as " + damaged +
                                 ".damaged-"},
  };
  BrokerWithSubscriber rig({}, "none");
  Messages sent;
  int number = 0;
  for (const auto& c : cases) {
    integration::writeConfig("server = m.invalid\nbroker = " + rig.broker.address() + "\noutbox = " + c.outbox + "\n");
    if (c.damageIt) std::ofstream(c.outbox) << garbage;
    std::unique_ptr<NotificationSupplier> holder(c.holdIt ? new NotificationSupplier : nullptr);
    NotificationSupplier supplier;
    sendNumbered(&supplier, number + 1, number + 3, sent);
    number += 3;
    EXPECT_EQ(rig.receivedOnce(sent), sent) << c.outbox;
    EXPECT_THAT(newLog(), HasSubstr(" 16 NotificationSupplier: " + c.logs)) << c.outbox;
  }
  std::vector<std::string> setAside;
  for (const auto& entry : std::filesystem::directory_iterator(integration::scratchPath("")))
    if (entry.path().filename().string().rfind("damaged.db.damaged-", 0) == 0) setAside.push_back(entry.path());
  ASSERT_EQ(setAside.size(), 1u);
  EXPECT_EQ(integration::fileText(setAside[0]), garbage);
}

TEST_F(NotificationSupplierTest, AFullDiskPutsEventsInMemoryAndNoneIsLost) {
  BrokerWithSubscriber rig({});
  const std::string log = integration::scratchPath("full-disk.log");
  const Raiser raiser = startRaiser("1 300 --file-size-limit 65536", log);
  const int status = pclose(raiser.output);
  EXPECT_EQ(raiser.accepted, 300);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  Messages sent;
  sendNumbered(nullptr, 1, 300, sent);
  EXPECT_EQ(rig.receivedOnce(sent), sent);
  const std::string logged = integration::fileText(log);
  const std::string failure = " 16 NotificationSupplier: cannot store events in the outbox " + testOutbox() + ": ";
  EXPECT_THAT(logged, HasSubstr(failure));
  // A checkpoint may make room for a while: one line per run of failures.
  const auto count = [&](const std::string& text) {
    size_t found = 0;
    for (size_t at = logged.find(text); at != std::string::npos; at = logged.find(text, at + 1)) ++found;
    return found;
  };
  EXPECT_LE(count(failure), count(" stores events again\n") + 1) << logged;
}

TEST_F(NotificationSupplierTest, ReachesATlsBrokerWithCredentialsAndRefusesWhatItCannotTrust) {
  const std::string dir = integration::scratchPath("tls");
  std::filesystem::create_directories(dir);
  const std::string make =
      "(cd " + dir + " && " +
      "openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2 -subj /CN=kscdp-test-ca && "
      "openssl req -x509 -newkey rsa:2048 -nodes -keyout other.key -out other-ca.pem -days 2 -subj /CN=other && "
      "openssl req -newkey rsa:2048 -nodes -keyout broker.key -out broker.csr -subj /CN=broker && "
      "printf 'subjectAltName=IP:127.0.0.1\\n' >san && "
      "openssl x509 -req -in broker.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out broker.pem -days 2 -extfile san && "
      "mosquitto_passwd -c -b users kscdp right-secret && "
      "echo right-secret >right && echo wrong-secret >wrong && cp right open && chmod 600 right wrong && chmod 644 open) >/dev/null 2>&1";
  ASSERT_EQ(std::system(make.c_str()), 0) << make;
  MosquittoBroker::Options options;
  options.certFile = dir + "/broker.pem";
  options.keyFile = dir + "/broker.key";
  options.passwordFile = dir + "/users";
  BrokerWithSubscriber rig(options, "none");
  const std::string port = std::to_string(rig.broker.port());
  const struct {
    std::string host;
    std::string caFile;
    std::string passwordFile;
    std::string logs;  // level 16; empty: delivered
  } cases[] = {
      {"127.0.0.1", "ca.pem", "right", ""},
      {"127.0.0.1", "other-ca.pem", "right", "certificate verify failed"},
      {"localhost", "ca.pem", "right", "host name verification failed"},
      {"127.0.0.1", "ca.pem", "wrong", "refused the connection: Connection Refused: not authorised"},
      {"127.0.0.1", "ca.pem", "open", "the broker password file " + dir + "/open is open to other users (mode 0644)"},
  };
  Messages sent;
  for (const auto& c : cases) {
    integration::writeConfig("server = m.invalid\nbroker = " + c.host + ":" + port + "\noutbox = none\n" +
                             "broker_tls = on\nbroker_ca_file = " + dir + "/" + c.caFile + "\nbroker_user = kscdp\n" +
                             "broker_password_file = " + dir + "/" + c.passwordFile + "\n");
    const size_t logStart = newLog().size();
    NotificationSupplier supplier;
    if (c.logs.empty()) {
      sendNumbered(&supplier, 1, 3, sent);
      EXPECT_EQ(rig.receivedOnce(sent), sent);
    } else {
      EXPECT_TRUE(logShows(c.logs)) << c.logs << "\n" << newLog().substr(logStart);
      EXPECT_THAT(newLog().substr(logStart), HasSubstr(" 16 NotificationSupplier: ")) << c.logs;
    }
    supplier.shutdown();
  }
}

TEST_F(NotificationSupplierTest, RefusesEventsOnceItsNetworkThreadHasEnded) {
  BrokerWithSubscriber rig({}, "none");
  g_connectThrows = true;
  NotificationSupplier supplier;
  const bool failed = logShows(" 16 NotificationSupplier: the notification publisher's thread failed: connect failed");
  g_connectThrows = false;
  ASSERT_TRUE(failed);
  NotificationEvent event = eventWithKey("k");
  EXPECT_NE(supplier.send_notification(event), 0);
  EXPECT_NE(supplier.send_notification(event), 0);
  const auto started = std::chrono::steady_clock::now();
  supplier.shutdown();
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));
  const std::string log = newLog();
  EXPECT_THAT(log, HasSubstr(" 16 NotificationSupplier: refusing events: the publisher's network thread has ended"));
  EXPECT_EQ(log.find("refusing events"), log.rfind("refusing events")) << "one line per run of refusals";
}

// The address comes from "broker", else the first master server; TLS moves
// the default port.
TEST(BrokerSettings, ComeFromTheConfigurationFileElseTheMasterServer) {
  const struct {
    const char* config;
    const char* address;  // null: refused
    const char* error;    // what the refusal names
  } cases[] = {
      {"server = m\nbroker = 10.0.0.9:18830\n", "10.0.0.9:18830", ""},
      {"server = master.example\nserver = media.example\nbroker =\n", "master.example:1883", ""},
      {"server = fe80::1%eth0\n", "fe80::1%eth0:1883", ""},
      {"server = m\nbroker_tls = on\n", "m:8883", ""},
      {"server = m\nbroker = m:1884\nbroker_tls = on\n", "m:1884", ""},
      {"server = m\nbroker = m:65536\n", nullptr, "keepstone.conf"},
      {"host_name = h\n", nullptr, "keepstone.conf"},
      {"server = m\nbroker_tls = yes\n", nullptr, "broker_tls"},
      {"server = m\nbroker_tls = on\nbroker_cert_file = c.pem\n", nullptr, "broker_key_file"},
      {"server = m\nbroker_ca_file = ca.pem\n", nullptr, "broker_tls = on"},
  };
  for (const auto& c : cases) {
    integration::writeConfig(c.config);
    standin::BrokerSettings settings;
    std::string error;
    ASSERT_EQ(standin::readBrokerSettings(settings, error), c.address != nullptr) << c.config;
    if (c.address != nullptr) {
      EXPECT_EQ(settings.address.host + ":" + std::to_string(settings.address.port), c.address);
    }
    EXPECT_THAT(error, HasSubstr(c.error)) << c.config;
  }
}

}  // namespace
