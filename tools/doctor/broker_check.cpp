// The broker: one MQTT connection with the publisher's TLS and credentials,
// bounded in time by driving libmosquitto's loop ourselves, and on request
// one test event published over it with QoS 1.
#include <mosquitto.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>

#include "checks.h"
#include "platform/notification.h"
#include "platform/standin/broker_settings.h"
#include "platform/standin/mqtt_client_setup.h"
#include "platform/standin/notification_payload.h"
#include "platform/standin/protocol.h"

namespace doctor {
namespace {

const char kId[] = "broker";
const char kTitle[] = "broker";
const char kAlertId[] = "test-alert";
const char kAlertTitle[] = "test alert";
const char kTestMessageKey[] = "KSCDP_DOCTOR_TEST_ALERT";
const int kConnectMilliseconds = 3000;
const int kPublishMilliseconds = 2000;
const int kKeepAliveSeconds = 10;

using Clock = std::chrono::steady_clock;

// What the callbacks saw; written on this thread only (we run the loop).
struct Session {
  int connack = -1;  // the broker's CONNACK code once it answered
  int publishedId = -1;
};

struct MosquittoRelease {
  void operator()(mosquitto* client) const { mosquitto_destroy(client); }
};
using Client = std::unique_ptr<mosquitto, MosquittoRelease>;

// Runs the network loop until `done` or `milliseconds` pass; MOSQ_ERR_SUCCESS,
// or the loop's failure with its errno in `error`.
template <typename Done>
int runUntil(mosquitto* client, int milliseconds, Done done, int& error) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
  while (!done() && Clock::now() < deadline) {
    errno = 0;
    const int result = mosquitto_loop(client, 100, 1);
    if (result != MOSQ_ERR_SUCCESS) {
      error = errno;
      return result;
    }
  }
  return MOSQ_ERR_SUCCESS;
}

std::string testAlertPayload(const Configuration& configuration) {
  NotificationEvent event;
  event.version = 1;
  event.producerType = "Keepstone";
  event.producerSubType = "CDP";
  event.notificationType = "CDP Backup Engine";
  event.priority = "LOW";
  event.severity = "INFO";
  event.messageKey = kTestMessageKey;
  event.attributes["server"] = configuration.values.hostName;
  event.attributes["message"] = "Test alert from kscdp-doctor; no action needed";
  return standin::notificationPayload(event);
}

CheckResult publishTestAlert(mosquitto* client, Session& session, const Configuration& configuration) {
  const std::string payload = testAlertPayload(configuration);
  int messageId = 0;
  int result = mosquitto_publish(client, &messageId, standin::kNotificationTopic, static_cast<int>(payload.size()),
                                 payload.data(), 1, false);
  int error = 0;
  if (result == MOSQ_ERR_SUCCESS) {
    result = runUntil(
        client, kPublishMilliseconds, [&] { return session.publishedId == messageId; }, error);
  }
  if (result != MOSQ_ERR_SUCCESS) {
    return failedResult(
        kAlertId, kAlertTitle, "publishing failed: " + standin::mosquittoErrorText(result, error),
        "check that the broker lets this client publish to " + std::string(standin::kNotificationTopic));
  }
  if (session.publishedId != messageId) {
    return failedResult(
        kAlertId, kAlertTitle, "the broker did not acknowledge the event within 2 s",
        "check the broker's log and that this client may publish to " + std::string(standin::kNotificationTopic));
  }
  return okResult(
      kAlertId, kAlertTitle,
      std::string("one event with message key ") + kTestMessageKey + " acknowledged on " + standin::kNotificationTopic);
}

std::string connectAction(int result, const standin::BrokerSettings& settings, const std::string& address) {
  if (result == MOSQ_ERR_TLS) {
    return "set broker_ca_file to the CA bundle that signed the broker's certificate and check that it names "
           "the broker's host, or set broker_tls to match the broker's listener";
  }
  if (result == MOSQ_ERR_ERRNO || result == MOSQ_ERR_CONN_LOST || result == MOSQ_ERR_NO_CONN) {
    return std::string("start the broker, or set broker to where it listens") +
           (settings.tls ? " with TLS" : " without TLS") + " (now " + address + ")";
  }
  return "check broker, broker_tls and the broker's log";
}

}  // namespace

std::vector<CheckResult> checkBroker(const Configuration& configuration, bool masterResolves, bool sendTestAlert) {
  std::vector<CheckResult> results;
  // The results of a check that ends without a connection.
  const auto finish = [&](const CheckResult& broker) {
    results.push_back(broker);
    if (sendTestAlert) results.push_back(skippedResult(kAlertId, kAlertTitle, "needs a connection to the broker"));
    return results;
  };
  if (!configuration.namesMaster()) return finish(skippedResult(kId, kTitle, kNoMasterReason));
  standin::BrokerSettings settings;
  std::string problem;
  if (!standin::brokerSettings(configuration, settings, problem)) {
    return finish(failedResult(kId, kTitle, problem, "correct the broker settings in " + configuration.path));
  }
  const standin::BrokerAddress& address = settings.address;
  if (isUnresolvedMaster(address.host, configuration, masterResolves)) {
    return finish(skippedResult(kId, kTitle, kUnresolvedMasterReason));
  }
  const std::string where = address.host + ":" + std::to_string(address.port);

  Session session;
  const std::string clientId = "kscdp-doctor-" + std::to_string(getpid());
  Client client(mosquitto_new(clientId.c_str(), true, &session));
  if (client == nullptr) {
    return finish(failedResult(kId, kTitle, "libmosquitto could not make a client", "free some memory and run again"));
  }
  mosquitto_connect_callback_set(client.get(),
                                 [](mosquitto*, void* data, int code) { static_cast<Session*>(data)->connack = code; });
  mosquitto_publish_callback_set(client.get(), [](mosquitto*, void* data, int messageId) {
    static_cast<Session*>(data)->publishedId = messageId;
  });
  if (!standin::applyBrokerSettings(client.get(), settings, problem)) {
    return finish(failedResult(kId, kTitle, problem,
                               "correct the broker_* settings in " + configuration.path +
                                   "; the password file must not be readable by others (chmod o-rwx)"));
  }

  int error = 0;
  errno = 0;
  int result = mosquitto_connect_async(client.get(), address.host.c_str(), address.port, kKeepAliveSeconds);
  error = errno;
  if (result == MOSQ_ERR_SUCCESS) {
    result = runUntil(
        client.get(), kConnectMilliseconds, [&] { return session.connack >= 0; }, error);
  }
  if (result != MOSQ_ERR_SUCCESS) {
    return finish(failedResult(kId, kTitle, where + ": " + standin::mosquittoErrorText(result, error),
                               connectAction(result, settings, where)));
  }
  if (session.connack < 0) {
    return finish(failedResult(kId, kTitle, where + " gave no MQTT answer within 3 s",
                               "check that " + where +
                                   " is the broker, that broker_tls matches its listener, "
                                   "and that the firewalls between this host and it let MQTT through"));
  }
  if (session.connack != 0) {
    const bool credentials = session.connack == 4 || session.connack == 5;
    return finish(failedResult(kId, kTitle,
                               where + " refused the connection: " + mosquitto_connack_string(session.connack),
                               credentials ? "check broker_user and broker_password_file against the broker's "
                                             "password file and ACL"
                                           : "check the broker's log"));
  }
  const std::string security = settings.tls ? "over TLS" : "without TLS";
  const std::string identity = settings.user.empty() ? "anonymous" : "as " + settings.user;
  results.push_back(okResult(kId, kTitle, where + " accepted an MQTT connection " + security + ", " + identity));
  if (sendTestAlert) results.push_back(publishTestAlert(client.get(), session, configuration));
  mosquitto_disconnect(client.get());
  int ignored = 0;
  runUntil(
      client.get(), 200, [] { return false; }, ignored);
  return results;
}

}  // namespace doctor
