// The broker: one MQTT connection to each entry of the broker list with the
// publisher's TLS and credentials, all at once and each bounded in time by
// driving libmosquitto's loop ourselves, and on request one test event
// published over the first connection made, with QoS 1.
#include <mosquitto.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <system_error>
#include <thread>

#include "checks.h"
#include "platform/notification.h"
#include "platform/standin/config/broker_settings.h"
#include "platform/standin/config/protocol.h"
#include "platform/standin/mqtt/broker_tls_context.h"
#include "platform/standin/mqtt/client_setup.h"
#include "platform/standin/mqtt/early_close.h"
#include "platform/standin/mqtt/notification_payload.h"
#include "services/AlertServiceImpl.h"
#include "tls_advice.h"

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
const int kInFlight = 20;

using Clock = std::chrono::steady_clock;

// What the callbacks saw; written by the thread that runs the client's loop.
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
  event.version = AlertHelper::version;
  event.producerType = AlertHelper::producerType;
  event.producerSubType = AlertHelper::producerSubType;
  event.notificationType = AlertHelper::notificationType;
  event.priority = AlertHelper::getPriority(ALERT_PRIORITY_LOW);
  event.severity = AlertHelper::getSeverity(ALERT_SEVERITY_INFO);
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

// Whether a failure over TLS happened in or right after the handshake: a
// TLS error, or the broker ending the connection before MQTT could answer.
// `problem` is what was said of it: a failure of the connect call itself
// leaves no errno behind but its text.
bool brokerHungUp(int result, int error, const std::string& problem) {
  if (result == MOSQ_ERR_PROTOCOL || result == MOSQ_ERR_CONN_LOST) return true;
  if (result != MOSQ_ERR_ERRNO) return false;
  for (const int cause : {EPROTO, ECONNRESET}) {
    if (error == cause || problem.find(std::strerror(cause)) != std::string::npos) return true;
  }
  return false;
}
bool handshakeFailed(int result, int error, const std::string& problem, const standin::BrokerSettings& settings) {
  return result == MOSQ_ERR_TLS || (settings.tls && brokerHungUp(result, error, problem));
}

std::string connectAction(int result, int error, const std::string& problem, const Configuration& configuration,
                          const standin::BrokerSettings& settings, const standin::BrokerAddress& address) {
  const std::string where = standin::brokerText(address);
  if (handshakeFailed(result, error, problem, settings)) {
    const std::string action = tlsAction(problem, configuration, kBrokerTlsKeys, address.host);
    if (!action.empty()) return action;
    return "set broker_ca_file to the CA bundle that signed the broker's certificate, and broker_cert_file and "
           "broker_key_file to a certificate that the broker's CA signed (the broker's log says which it refused), "
           "or set broker_tls to match the broker's listener";
  }
  if (!settings.tls && brokerHungUp(result, error, problem)) {
    return "the broker closed the connection before it answered MQTT: if its listener is TLS, set broker_tls = on "
           "and broker_ca_file (with broker_cert_file and broker_key_file when it requires client certificates) in " +
           configuration.path + "; otherwise read the broker's log";
  }
  if (result == MOSQ_ERR_ERRNO || result == MOSQ_ERR_CONN_LOST || result == MOSQ_ERR_NO_CONN) {
    return std::string("start the broker, or set broker to where it listens") +
           (settings.tls ? " with TLS" : " without TLS") + " (now " + where + ")";
  }
  return "check broker, broker_tls and the broker's log";
}

// One entry of the broker list: its client, and whether it accepted the
// connection or what went wrong.
struct Probe {
  standin::BrokerAddress address;
  std::string where;     // "host:port"
  std::string clientId;  // this process's own for each entry
  Session session;       // the client's callbacks write here: a Probe never moves
  Client client;
  bool accepted = false;
  std::string problem;  // why not: starts with `where`
  std::string action;
  // When the client could not be made or set up: not the entry's fault.
  bool notStarted = false;
  standin::MqttStartFailure failure;
};

const standin::MqttCallbacks kCallbacks = {
    [](mosquitto*, void* session, int code) { static_cast<Session*>(session)->connack = code; },
    [](mosquitto*, void* session, int messageId) { static_cast<Session*>(session)->publishedId = messageId; }, nullptr};

// Connects `probe`'s client through the publisher's connect path, within 3 s.
void connectProbe(Probe& probe, const Configuration& configuration, const standin::BrokerSettings& settings) {
  const std::string& where = probe.where;
  probe.client.reset(standin::startMqttConnection(probe.address, settings, probe.clientId.c_str(), kCallbacks,
                                                  &probe.session, kKeepAliveSeconds, kInFlight, probe.failure));
  if (probe.client == nullptr && probe.failure.step != standin::MqttStartFailure::kConnect) {
    probe.notStarted = true;
    return;
  }
  int result = probe.client == nullptr ? probe.failure.result : MOSQ_ERR_SUCCESS;
  int error = 0;
  standin::EarlyEnd earlyEnd;
  bool endedEarly = false;
  if (result == MOSQ_ERR_SUCCESS) {
    result = runUntil(
        probe.client.get(), kConnectMilliseconds,
        [&] {
          endedEarly = probe.session.connack < 0 && standin::connectionEndedEarly(probe.client.get(), earlyEnd);
          return probe.session.connack >= 0 || endedEarly;
        },
        error);
  }
  if (probe.client == nullptr) {
    probe.problem = where + ": " + probe.failure.text;
    probe.action = connectAction(result, error, probe.problem, configuration, settings, probe.address);
  } else if (endedEarly) {
    // Closed with no error: over TLS the handshake was refused; without it,
    // the broker would not take what this client sent.
    const int ending = earlyEnd.error != 0 ? MOSQ_ERR_ERRNO : settings.tls ? MOSQ_ERR_TLS : MOSQ_ERR_CONN_LOST;
    probe.problem = where + ": " + earlyEnd.text;
    probe.action = connectAction(ending, earlyEnd.error, probe.problem, configuration, settings, probe.address);
  } else if (result != MOSQ_ERR_SUCCESS) {
    const std::string certificate = result == MOSQ_ERR_TLS ? standin::refusedBrokerCertificate() : "";
    probe.problem = where + ": " + standin::mosquittoErrorText(result, error) +
                    (certificate.empty() ? "" : " (the broker's certificate: " + certificate + ")");
    probe.action = connectAction(result, error, probe.problem, configuration, settings, probe.address);
  } else if (probe.session.connack < 0) {
    probe.problem = where + " gave no MQTT answer within 3 s";
    probe.action = "check that " + where +
                   " is the broker, that broker_tls matches its listener, "
                   "and that the firewalls between this host and it let MQTT through";
  } else if (probe.session.connack != 0) {
    const bool credentials = probe.session.connack == 4 || probe.session.connack == 5;
    probe.problem = where + " refused the connection: " + mosquitto_connack_string(probe.session.connack);
    probe.action = credentials ? "check broker_user and broker_password_file against the broker's password file and ACL"
                               : "check the broker's log";
  } else {
    probe.accepted = true;
  }
}

// `texts` joined by `separator`, each once.
std::string joinDistinct(const std::vector<std::string>& texts, const char* separator) {
  std::string joined;
  for (size_t i = 0; i < texts.size(); ++i) {
    bool seen = false;
    for (size_t j = 0; j < i; ++j) seen = seen || texts[j] == texts[i];
    if (!seen) joined += (joined.empty() ? "" : separator) + texts[i];
  }
  return joined;
}

// For a list: which entry this host tries first, and why.
std::string firstEntryNote(const standin::BrokerSettings& settings) {
  if (settings.addresses.size() < 2) return "";
  const standin::BrokerAddress& first = settings.addresses[standin::brokerRoute(settings).first];
  const std::string order =
      settings.spread ? "broker_order = spread, host name " + settings.hostName : "broker_order = written";
  return "; this host tries " + standin::brokerText(first) + " first (" + order + ")";
}

// Every entry answered: ok; some did not: a warning naming them; none did: a
// failure.
CheckResult verdict(const std::vector<std::unique_ptr<Probe>>& probes, const standin::BrokerSettings& settings) {
  std::vector<std::string> reached, problems, actions;
  for (const std::unique_ptr<Probe>& probe : probes) {
    if (probe->accepted) {
      reached.push_back(probe->where);
    } else {
      problems.push_back(probe->problem);
      actions.push_back(probe->action);
    }
  }
  if (probes.size() == 1 && reached.empty()) return failedResult(kId, kTitle, problems[0], actions[0]);
  if (reached.empty()) {
    return failedResult(kId, kTitle,
                        "no broker of the list answered: " + joinDistinct(problems, "; ") + firstEntryNote(settings),
                        joinDistinct(actions, "; "));
  }
  const std::string connection = "an MQTT connection " + std::string(settings.tls ? "over TLS" : "without TLS") + ", " +
                                 (settings.user.empty() ? "anonymous" : "as " + settings.user);
  if (problems.empty()) {
    return okResult(kId, kTitle, joinDistinct(reached, ", ") + " accepted " + connection + firstEntryNote(settings));
  }
  return warningResult(kId, kTitle,
                       std::to_string(problems.size()) + " of " + std::to_string(probes.size()) +
                           " brokers did not answer: " + joinDistinct(problems, "; ") + "; alerts go to " +
                           joinDistinct(reached, ", ") + " meanwhile (accepted " + connection + ")" +
                           firstEntryNote(settings),
                       joinDistinct(actions, "; "));
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

  std::vector<std::unique_ptr<Probe>> probes;
  std::vector<std::thread> connections;
  bool anyToTry = false;
  for (const standin::BrokerAddress& address : settings.addresses) {
    probes.emplace_back(new Probe);
    Probe& probe = *probes.back();
    probe.address = address;
    probe.where = standin::brokerText(address);
    if (isUnresolvedMaster(address.host, configuration, masterResolves)) {
      probe.problem = probe.where + ": " + kUnresolvedMasterReason;
      probe.action = "see the master's name check above";
      continue;
    }
    anyToTry = true;
    probe.clientId = "kscdp-doctor-" + std::to_string(getpid()) + "-" + std::to_string(probes.size());
  }
  if (!anyToTry) return finish(skippedResult(kId, kTitle, kUnresolvedMasterReason));
  // Every entry at once, so that the check takes as long as the slowest one.
  for (const std::unique_ptr<Probe>& probe : probes) {
    if (probe->clientId.empty()) continue;
    try {
      connections.emplace_back(connectProbe, std::ref(*probe), std::cref(configuration), std::cref(settings));
    } catch (const std::system_error&) {
      connectProbe(*probe, configuration, settings);  // no thread to spare: this one waits its turn
    }
  }
  for (std::thread& connection : connections) connection.join();
  for (const std::unique_ptr<Probe>& probe : probes) {
    if (!probe->notStarted) continue;
    if (probe->failure.step == standin::MqttStartFailure::kMake) {
      return finish(
          failedResult(kId, kTitle, "libmosquitto could not make a client", "free some memory and run again"));
    }
    return finish(failedResult(kId, kTitle, probe->failure.text,
                               "correct the broker_* settings in " + configuration.path +
                                   "; the password file must not be readable by others (chmod o-rwx)"));
  }

  const CheckResult broker = verdict(probes, settings);
  if (broker.status == Status::kFailed) return finish(broker);
  results.push_back(broker);
  bool alertSent = !sendTestAlert;
  for (const std::unique_ptr<Probe>& probe : probes) {
    if (!probe->accepted) continue;
    if (!alertSent) results.push_back(publishTestAlert(probe->client.get(), probe->session, configuration));
    alertSent = true;
    mosquitto_disconnect(probe->client.get());
    int ignored = 0;
    runUntil(
        probe->client.get(), 200, [] { return false; }, ignored);
  }
  return results;
}

}  // namespace doctor
