// The stand-in NotificationSupplier against a real mosquitto broker and a
// real subscriber.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <mosquitto.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "case_table.h"
#include "fault_proxy/fault_proxy.h"
#include "integration/programs/numbered_event.h"
#include "mosquitto_broker.h"
#include "mqtt_subscriber.h"
#include "platform/notification.h"
#include "platform/standin/config/broker_settings.h"
#include "platform/standin/mqtt/notification_payload.h"
#include "standin_environment.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

using testbed::MosquittoBroker;
using testbed::MqttSubscriber;
using Messages = MqttSubscriber::Messages;

const std::chrono::seconds kDeliveryTimeout(20);

// A broker whose subscribers miss nothing across a restart.
const MosquittoBroker::Options kKeepSessions{true, {}, {}, {}, {}};

// Adds the payloads of events first..last to `sent`, after sending each
// through `supplier` (when there is one), which must accept it. Each event
// carries a note of `noteBytes` bytes when that is not 0.
void sendNumbered(NotificationSupplier* supplier, int first, int last, Messages& sent, size_t noteBytes = 0) {
  for (int number = first; number <= last; ++number) {
    NotificationEvent event = numbered(number);
    if (noteBytes > 0) event.attributes["note"] = std::string(noteBytes, 'n');
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
    return testbed::withoutRepeats(subscriber.waitForDistinct(expected.size(), kDeliveryTimeout));
  }

  static constexpr const char* kTopic = "keepstone/notifications";
  MosquittoBroker broker;
  MqttSubscriber subscriber;
};

// Two brokers, as two nodes of a cluster, each with a subscriber to the
// notification topic and keeping sessions (a subscriber misses nothing across
// a restart), and the master configuration listing both, the first first.
struct TwoBrokers {
  TwoBrokers()
      : first(kKeepSessions),
        second(kKeepSessions),
        firstSubscriber(first.port(), BrokerWithSubscriber::kTopic),
        secondSubscriber(second.port(), BrokerWithSubscriber::kTopic) {
    integration::writeConfig("server = master.invalid\nbroker = " + first.address() + ", " + second.address() +
                             "\noutbox = " + testOutbox() + "\nmetrics_file = " + kMetrics +
                             "\nmetrics_interval = 1\n");
  }

  // Waits until each payload of `sent` reached one subscriber or the other;
  // returns those that neither received, in order.
  Messages missingFromBoth(const Messages& sent) {
    for (const auto deadline = std::chrono::steady_clock::now() + kDeliveryTimeout;;) {
      std::set<std::string> received;
      for (MqttSubscriber* subscriber : {&firstSubscriber, &secondSubscriber}) {
        const Messages got = subscriber->waitForCount(0, std::chrono::milliseconds(0));
        received.insert(got.begin(), got.end());
      }
      Messages missing;
      std::copy_if(sent.begin(), sent.end(), std::back_inserter(missing),
                   [&received](const std::string& payload) { return received.count(payload) == 0; });
      if (missing.empty() || std::chrono::steady_clock::now() >= deadline) return missing;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }

  const std::string kMetrics = integration::scratchPath("two-brokers.prom");
  MosquittoBroker first;
  MosquittoBroker second;
  MqttSubscriber firstSubscriber;
  MqttSubscriber secondSubscriber;
};

// Waits up to 10 s for a level-16 line of the publisher that holds `text`,
// logged past `from`.
bool publisherFailureLogged(const std::string& text, size_t from) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (;;) {
    const std::string log = integration::logText().substr(from);
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
      const size_t line = log.rfind('\n', at) + 1;  // 0 on the first line
      if (log.substr(line, at - line).find(" 16 NotificationSupplier: ") != std::string::npos) return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

// kscdp_alert_raiser, running, once it has handed every event over.
struct Raiser {
  FILE* output;  // pclose() waits for it
  pid_t pid;
  long accepted;
};

// Starts kscdp_alert_raiser with `arguments`, logging to `logFile`, with the
// configuration file `config` (empty: the test's own).
Raiser startRaiser(const std::string& arguments, const std::string& logFile, const std::string& config = "") {
  const std::string command = "KSU_LOG_FILE=" + logFile + (config.empty() ? "" : " KEEPSTONE_CONF=" + config) +
                              " exec " KSCDP_ALERT_RAISER_PATH " " + arguments;
  Raiser raiser{popen(command.c_str(), "r"), -1, -1};
  if (raiser.output == nullptr || std::fscanf(raiser.output, "accepted %ld pid %d", &raiser.accepted, &raiser.pid) != 2)
    throw std::runtime_error("cannot run " + command);
  return raiser;
}

// Armed, the network thread's connection attempt throws, as a failure nobody
// foresaw would; unarmed, libmosquitto's own function runs.
std::atomic<bool> g_connectThrows{false};

}  // namespace

extern "C" int mosquitto_connect_async(struct mosquitto* client, const char* host, int port, int keepAlive) {
  if (g_connectThrows) throw std::runtime_error("connect failed in a test");
  using Connect = int (*)(struct mosquitto*, const char*, int, int);
  static const auto real = reinterpret_cast<Connect>(dlsym(RTLD_NEXT, "mosquitto_connect_async"));
  return real(client, host, port, keepAlive);
}

namespace {

using NotificationSupplierTest = integration::StandinTest;

TEST_F(NotificationSupplierTest, WhenTheFirstBrokerOfTheListStopsAlertsGoToTheNext) {
  TwoBrokers rig;
  NotificationSupplier supplier;
  Messages sent;
  sendNumbered(&supplier, 1, 1000, sent);
  rig.firstSubscriber.waitForCount(1, kDeliveryTimeout);
  rig.first.stop();  // while the first thousand are on their way
  sendNumbered(&supplier, 1001, 2000, sent);
  rig.secondSubscriber.waitForCount(1, kDeliveryTimeout);
  // What the first broker acknowledged but had not passed on when it stopped
  // waits in its saved session; back, it hands that to its subscriber.
  rig.first.start();

  const Messages missing = rig.missingFromBoth(sent);
  EXPECT_EQ(missing.size(), 0u) << "the first missing: " << (missing.empty() ? "" : missing[0]);
  EXPECT_THAT(newLog(), HasSubstr(" 16 NotificationSupplier: switched from broker " + rig.first.address() +
                                  " to broker " + rig.second.address() + "\n"));
  supplier.shutdown();
  EXPECT_THAT(integration::fileText(rig.kMetrics), HasSubstr("\nkscdp_broker_switches_total 1\n"));
}

// The first entry of the list is a link that falls silent (no reset, no
// close): the publisher gives up on it once acknowledgements stop, long
// before the keep-alive would, and the next entry gets what was waiting.
TEST_F(NotificationSupplierTest, AlertsLeaveABrokerThatFallsSilentForTheNextWithinTwentySeconds) {
  TwoBrokers rig;
  faultproxy::FaultProxy link(0, "127.0.0.1", rig.first.port());
  const std::string silent = "127.0.0.1:" + std::to_string(link.port());
  integration::writeConfig("server = master.invalid\nbroker = " + silent + ", " + rig.second.address() +
                           "\noutbox = " + testOutbox() + "\n");
  NotificationSupplier supplier;
  Messages before;
  sendNumbered(&supplier, 1, 100, before);
  ASSERT_EQ(testbed::withoutRepeats(rig.firstSubscriber.waitForDistinct(before.size(), kDeliveryTimeout)), before);

  link.freeze(std::chrono::minutes(2));
  const auto silenceBegan = std::chrono::steady_clock::now();
  Messages after;
  sendNumbered(&supplier, 101, 200, after);
  EXPECT_EQ(rig.missingFromBoth(after), Messages());
  EXPECT_LT(std::chrono::steady_clock::now() - silenceBegan, std::chrono::seconds(20));
  // Those whose acknowledgement the silence held go again: in order, after.
  Messages atSecond = testbed::withoutRepeats(rig.secondSubscriber.waitForCount(0, std::chrono::milliseconds(0)));
  atSecond.erase(atSecond.begin(), std::find(atSecond.begin(), atSecond.end(), after.front()));
  EXPECT_EQ(atSecond, after);
  EXPECT_THAT(newLog(), HasSubstr(" 16 NotificationSupplier: lost the connection to broker " + silent +
                                  ": nothing acknowledged for 5 s; events wait until the broker can be reached\n"));
  EXPECT_THAT(newLog(), HasSubstr(" 16 NotificationSupplier: switched from broker " + silent + " to broker " +
                                  rig.second.address() + "\n"));
  supplier.shutdown();
}

TEST_F(NotificationSupplierTest, AlertsWaitForTheFirstBrokerOfTheListThatAnswers) {
  const struct {
    const char* scenario;
    bool secondDownAtStart;  // and back once the events wait
  } cases[] = {
      {"the first down at start: the second is used", false},
      {"both down, then the second comes back: the backlog drains there", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.scenario);
    TwoBrokers rig;
    rig.first.stop();
    if (c.secondDownAtStart) rig.second.stop();
    NotificationSupplier supplier;
    Messages sent;
    sendNumbered(&supplier, 1, 100, sent);
    if (c.secondDownAtStart) rig.second.start();
    EXPECT_EQ(testbed::withoutRepeats(rig.secondSubscriber.waitForDistinct(sent.size(), kDeliveryTimeout)), sent);
    supplier.shutdown();
  }
}

// The bytes of every file of the outbox at `path`: database, WAL, index.
long long outboxBytes(const std::string& path) {
  long long bytes = 0;
  for (const char* suffix : {"", "-wal", "-shm"}) {
    std::error_code missing;
    const auto size = std::filesystem::file_size(path + suffix, missing);
    if (!missing) bytes += static_cast<long long>(size);
  }
  return bytes;
}

// While the broker is away, the outbox takes at most 2 bytes of disk per
// byte of payload, plus 8 MiB, once its own thread has had a turn at the WAL
// (with a core to spare, that is during the burst; on a loaded machine, by
// the time the next few events are appended); once the backlog is delivered,
// in order, it gives the space back.
TEST_F(NotificationSupplierTest, NothingIsLostWhileTheBrokerIsDownAndTheOutboxStaysSmall) {
  BrokerWithSubscriber rig(kKeepSessions);
  rig.broker.stop();
  NotificationSupplier supplier;
  Messages sent;
  sendNumbered(&supplier, 1, 12000, sent, 1000);  // before the broker was ever reached
  const auto withinBound = [&sent] {
    long long payloadBytes = 0;
    for (const std::string& payload : sent) payloadBytes += static_cast<long long>(payload.size());
    return outboxBytes(testOutbox()) <= 2 * payloadBytes + (8 << 20);
  };
  int last = 12000;
  for (const auto giveUp = std::chrono::steady_clock::now() + kDeliveryTimeout;
       !withinBound() && std::chrono::steady_clock::now() < giveUp; ++last) {
    sendNumbered(&supplier, last + 1, last + 1, sent, 1000);  // a WAL copied whole starts over here
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_TRUE(withinBound()) << outboxBytes(testOutbox()) << " bytes after " << last << " events";
  rig.broker.start();
  ASSERT_EQ(rig.receivedOnce(sent), sent);
  const auto deadline = std::chrono::steady_clock::now() + kDeliveryTimeout;
  while (outboxBytes(testOutbox()) > (4 << 20) && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_LE(outboxBytes(testOutbox()), 4 << 20);
  sendNumbered(&supplier, last + 1, last + 5000, sent);  // the broker stops while these are on their way
  rig.broker.stop();
  sendNumbered(&supplier, last + 5001, last + 5050, sent);
  rig.broker.start();
  sendNumbered(&supplier, last + 5051, last + 10000, sent);
  ASSERT_EQ(rig.receivedOnce(sent), sent);
  sendNumbered(&supplier, last + 10001, last + 10020, sent);
  supplier.shutdown();  // shutdown delivers what waits

  EXPECT_EQ(rig.receivedOnce(sent), sent);
  EXPECT_THAT(newLog(), HasSubstr(" 16 NotificationSupplier: cannot reach broker " + rig.broker.address() + ": "));
  EXPECT_THAT(newLog(), HasSubstr(" 16 NotificationSupplier: lost the connection to broker " + rig.broker.address()));
  EXPECT_THAT(newLog(), Not(HasSubstr("not delivered")));
  NotificationEvent late = numbered(0);
  EXPECT_NE(supplier.send_notification(late), 0);
}

TEST_F(NotificationSupplierTest, WithoutABrokerRefusesBeyondTenThousandAndShutdownGivesUpAfterFiveSeconds) {
  const std::string nowhere = "127.0.0.1:" + std::to_string(testbed::freeLoopbackPort());
  integration::writeConfig("server = master.invalid\nbroker = " + nowhere + "\noutbox = none\n");
  auto supplier = std::make_unique<NotificationSupplier>();

  NotificationEvent event = numbered(0);
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
  EXPECT_THAT(log, HasSubstr(" 16 NotificationSupplier: 10000 events were not delivered: broker " + nowhere));
  size_t failures = 0;
  for (size_t at = log.find(" 16 "); at != std::string::npos; at = log.find(" 16 ", at + 1)) ++failures;
  EXPECT_EQ(failures, 3u) << "one line for the outage, one for the refusals, one for the loss:\n" << log;
}

TEST_F(NotificationSupplierTest, OutboxCarriesEventsOfAKilledProcessToTheNextPublisherAheadOfItsOwn) {
  BrokerWithSubscriber rig(kKeepSessions);
  rig.broker.stop();
  const Raiser raiser = startRaiser("1 100", integration::scratchPath("killed.log"));
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
  EXPECT_THAT(newLog(),
              HasSubstr(" 16 NotificationSupplier: 102 events were not acknowledged by broker " + rig.broker.address() +
                        " within 5 s of shutdown: they wait in the outbox " + testOutbox() + " for the next start\n"));
  rig.broker.start();
  NotificationSupplier next;
  sendNumbered(&next, 103, 105, sent);
  EXPECT_EQ(rig.receivedOnce(sent), sent);
  EXPECT_THAT(newLog(), Not(HasSubstr("cannot read the events waiting")));
}

// A live guest that cannot reach the broker (another process with its own
// configuration naming the same outbox) keeps its events in its guest file;
// the owner, when it stops, takes them in and sends them with its own.
TEST_F(NotificationSupplierTest, AnOwnerThatStopsSendsWhatALiveGuestHolds) {
  BrokerWithSubscriber rig(kKeepSessions);
  Messages sent;
  auto owner = std::make_unique<NotificationSupplier>();
  sendNumbered(owner.get(), 1, 1, sent);
  const std::string guestConfig = integration::scratchPath("live-guest.conf");
  std::ofstream(guestConfig) << "server = m.invalid\nbroker = 127.0.0.1:" << testbed::freeLoopbackPort()
                             << "\noutbox = " << testOutbox() << "\n";
  const Raiser guest = startRaiser("2 4", integration::scratchPath("live-guest.log"), guestConfig);
  sendNumbered(nullptr, 2, 4, sent);
  owner->shutdown();
  EXPECT_EQ(rig.receivedOnce(sent), sent);
  kill(guest.pid, SIGKILL);
  pclose(guest.output);
  EXPECT_EQ(guest.accepted, 3);
}

TEST_F(NotificationSupplierTest, RefusesEventsOnceItsNetworkThreadHasEnded) {
  BrokerWithSubscriber rig({}, "none");
  g_connectThrows = true;
  NotificationSupplier supplier;
  const bool failed =
      publisherFailureLogged("the notification publisher's thread failed: connect failed in a test", m_logStart);
  g_connectThrows = false;
  ASSERT_TRUE(failed);
  NotificationEvent event = numbered(0);
  EXPECT_EQ(supplier.send_notification(event), 4);
  EXPECT_EQ(supplier.send_notification(event), 4);
  supplier.shutdown();
  const std::string log = newLog();
  EXPECT_THAT(log, HasSubstr(" 16 NotificationSupplier: refusing events: the publisher's network thread has ended"));
  EXPECT_EQ(log.find("refusing events"), log.rfind("refusing events")) << "one line per run of refusals";
}

TEST_F(NotificationSupplierTest, AnOutboxThatCannotBeUsedLeavesAlertsFlowingThroughMemory) {
  const std::string dir = integration::scratchPath("");
  const auto fill = [&dir](const std::string& text, const std::string& path) {
    return cases::filled(text, {{"{dir}/", dir}, {"{path}", path}});
  };
  BrokerWithSubscriber rig({}, "none");
  Messages sent;
  int number = 0;
  std::map<std::string, std::string> setups;
  for (const cases::Row& c : cases::read("unusable_outboxes.cases")) {
    if (c[0] == "setup") {
      setups[c[1]] = c[2];
      continue;
    }
    const std::string path = fill(c[0], "");
    SCOPED_TRACE(path);
    integration::writeConfig("server = m.invalid\nbroker = " + rig.broker.address() + "\noutbox = " + path + "\n");
    for (size_t start = 0, end = 0; c[2] != "-" && end != std::string::npos; start = end + 1) {
      end = c[2].find('+', start);
      const std::string name = c[2].substr(start, end - start);
      ASSERT_EQ(setups.count(name), 1u) << "no setup named " << name;
      ASSERT_EQ(std::system(fill(setups[name], path).c_str()), 0) << name;
    }
    std::unique_ptr<NotificationSupplier> holder(c[1] == "yes" ? new NotificationSupplier : nullptr);
    NotificationSupplier supplier;
    sendNumbered(&supplier, number + 1, number + 3, sent);
    number += 3;
    EXPECT_EQ(rig.receivedOnce(sent), sent);
    EXPECT_THAT(newLog(), HasSubstr(" 16 NotificationSupplier: " + fill(c[3], path)));
    if (c.size() > 4) {
      supplier.shutdown();
      EXPECT_EQ(std::system(fill(c[4], path).c_str()), 0) << c[4];
    }
  }
  std::vector<std::string> setAside;
  for (const auto& entry : std::filesystem::directory_iterator(integration::scratchPath(""))) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("damaged.db.damaged-", 0) == 0 || name.rfind("newer.db.unknown-", 0) == 0) {
      setAside.push_back(entry.path());
    }
  }
  ASSERT_EQ(setAside.size(), 1u);
  EXPECT_EQ(integration::fileText(setAside[0]), std::string(10000, 'x'));
}

TEST_F(NotificationSupplierTest, AnOutboxOfTheReleaseBeforeIsUpgradedAndItsEventsGoFirst) {
  BrokerWithSubscriber rig({});
  const std::string load = "sqlite3 " + testOutbox() + " < " KSCDP_TEST_DATA_DIR "/outbox_unversioned.sql";
  ASSERT_EQ(std::system((load + " >/dev/null").c_str()), 0);
  Messages sent;
  sendNumbered(nullptr, 1, 3, sent);
  NotificationSupplier supplier;
  sendNumbered(&supplier, 4, 5, sent);
  EXPECT_EQ(rig.receivedOnce(sent), sent);
  supplier.shutdown();
  EXPECT_EQ(std::system(("test \"$(sqlite3 " + testOutbox() + " 'PRAGMA user_version')\" = 1").c_str()), 0);
}

// A TLS broker that wants a client certificate and a password, and the
// configurations that reach it or are refused. The certificates are made for
// the test.
TEST_F(NotificationSupplierTest, ReachesATlsBrokerWithCredentialsAndRefusesWhatItCannotTrust) {
  const std::string dir = integration::scratchPath("tls");
  const std::string make =
      "mkdir -p " + dir + " && cd " + dir + " && for name in ca other-ca; do openssl req -x509 -newkey rsa:2048 " +
      "-nodes -keyout $name.key -out $name.pem -days 2 -subj /CN=$name || exit; done && printf " +
      "'subjectAltName=IP:127.0.0.1\\n' >san && for name in broker client; do openssl req -newkey rsa:2048 -nodes " +
      "-keyout $name.key -out $name.csr -subj /CN=$name && openssl x509 -req -in $name.csr -CA ca.pem -CAkey ca.key " +
      "-CAcreateserial -out $name.pem -days 2 -extfile san || exit; done && mosquitto_passwd -c -b users kscdp " +
      "right && echo right >right && echo wrong >wrong && cp right open && cp right group && ln -sf right link && " +
      "chmod 600 right wrong && chmod 644 open && chmod 640 group";
  ASSERT_EQ(std::system(("(" + make + ") >/dev/null 2>&1").c_str()), 0) << make;
  const MosquittoBroker::Options tls{false, dir + "/broker.pem", dir + "/broker.key", dir + "/ca.pem", dir + "/users"};
  BrokerWithSubscriber rig(tls, "none");
  const std::string client = "broker_cert_file = " + dir + "/client.pem\nbroker_key_file = " + dir + "/client.key\n";
  Messages sent;
  for (const cases::Row& c : cases::read("tls_brokers.cases")) {
    SCOPED_TRACE(c[0] + " " + c[1] + " " + c[2] + " " + c[3]);
    integration::writeConfig("server = m.invalid\noutbox = none\nbroker_tls = on\nbroker = " + c[0] + ":" +
                             std::to_string(rig.broker.port()) + "\nbroker_ca_file = " + dir + "/" + c[1] +
                             "\nbroker_user = kscdp\nbroker_password_file = " + dir + "/" + c[2] + "\n" +
                             (c[3] == "yes" ? client : ""));
    const std::string refusal = cases::filled(c[4], {{"{dir}", dir}});
    const size_t logStart = integration::logText().size();
    NotificationSupplier supplier;
    if (refusal.empty()) {
      sendNumbered(&supplier, 1, 3, sent);
      EXPECT_EQ(rig.receivedOnce(sent), sent);
    } else {
      EXPECT_TRUE(publisherFailureLogged(refusal, logStart)) << integration::logText().substr(logStart);
    }
    supplier.shutdown();
  }
}

// The addresses come from "broker", else the first master server; TLS moves
// the default port.
TEST(BrokerSettings, ComeFromTheConfigurationFileElseTheMasterServer) {
  for (const cases::Row& c : cases::read("broker_settings.cases")) {
    integration::writeConfig(c[0]);
    standin::BrokerSettings settings;
    std::string error;
    ASSERT_EQ(standin::brokerSettings(*standin::currentConfig(), settings, error), c[1] != "-") << c[0];
    std::string addresses;
    for (const standin::BrokerAddress& address : settings.addresses)
      addresses += (addresses.empty() ? "" : " ") + standin::brokerText(address);
    EXPECT_EQ(addresses, c[1] != "-" ? c[1] : "") << c[0];
    EXPECT_THAT(error, HasSubstr(cases::filled(c[2], {{"{conf}", std::getenv("KEEPSTONE_CONF")}}))) << c[0];
  }
}

}  // namespace
