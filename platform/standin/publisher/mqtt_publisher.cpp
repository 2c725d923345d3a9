#include "platform/standin/publisher/mqtt_publisher.h"

#include <mosquitto.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <system_error>

#include "platform/ksu_log.h"
#include "platform/standin/config/protocol.h"
#include "platform/standin/counters/metrics.h"
#include "platform/standin/mqtt/broker_tls_context.h"
#include "platform/standin/mqtt/client_setup.h"
#include "platform/standin/mqtt/early_close.h"
#include "platform/standin/mqtt/mosquitto_library.h"
#include "platform/standin/publisher/registry.h"

namespace standin {
namespace {

const int kQos = 1;
const size_t kMemoryCapacity = 10000;
const size_t kOutboxCapacity = 100000;
const size_t kInFlight = 20;  // handed to the client at a time, as many as it keeps in flight
const int kKeepAliveSeconds = 30;
// An MQTT PUBLISH carries at most 268,435,455 bytes after its fixed header:
// the topic with its length, the message id and the payload.
const size_t kLargestPayload = 268435455 - (2 + sizeof kNotificationTopic - 1) - 2;

const std::chrono::seconds kShutdownGrace(5);
const std::chrono::seconds kUnloadGrace(1);  // an engine's exit or dlclose must not wait long
const std::chrono::seconds kConnectTimeout(10);
// A connection that owes an acknowledgement and has given none for this long
// is lost: a silent peer (a partition, a frozen node) otherwise holds the
// events until the keep-alive notices, 1.5 keep-alives later.
const std::chrono::seconds kAcknowledgementTimeout(5);
const std::chrono::milliseconds kFirstRetryDelay(100);
const std::chrono::seconds kLongestRetryDelay(1);
const std::chrono::milliseconds kRetryDelayAfterLoss(500);
const std::chrono::seconds kLongestPoll(1);  // the client's keep-alive needs a turn this often

const char kLogFunction[] = "NotificationSupplier";

void logFailure(const std::string& message) { ksu_logmsg_str(FAILURE_LEVEL, kLogFunction, message); }

int openWakeFd() {
  const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (fd < 0) {
    const int error = errno;
    logFailure(std::string("cannot start the notification publisher: eventfd: ") + std::strerror(error));
    throw std::system_error(error, std::generic_category(), "eventfd");
  }
  return fd;
}

// Distinct for every process, even for engines started in the same instant
// on one machine: the retry pauses of a fleet must not fall in step.
uint64_t rotationSeed() {
  const auto now = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  return now ^ (static_cast<uint64_t>(getpid()) << 40);
}

}  // namespace

MqttPublisher::MqttPublisher()
    : m_outbox(openOutbox(m_outboxLocation, m_guest)),
      m_events(capacity()),
      m_wakeFd(openWakeFd()),
      m_rotation(kFirstRetryDelay, kLongestRetryDelay, kRetryDelayAfterLoss, rotationSeed()) {
  useMosquittoLibrary();
  try {
    m_network = std::thread(&MqttPublisher::run, this);
  } catch (const std::system_error& e) {
    logFailure(std::string("cannot start the notification publisher's thread: ") + e.what());
    close(m_wakeFd);
    throw;
  }
  try {
    registerPublisher(this);
  } catch (...) {
    stop();
    close(m_wakeFd);
    throw;
  }
}

MqttPublisher::~MqttPublisher() {
  unregisterPublisher(this);
  stopWithin(kUnloadGrace);
  close(m_wakeFd);
}

int MqttPublisher::publish(std::string payload) {
  if (payload.size() > kLargestPayload) {
    logFailure("refused an event of " + std::to_string(payload.size()) + " bytes: too large for one MQTT message");
    return kRefusedTooLarge;
  }
  {
    // Held across the push, so that an event is either refused or seen by
    // the network thread before it stops.
    port::MutexLock lock(m_controlMutex);
    if (m_stopRequested) {
      logFailure("refused an event: the publisher has been shut down");
      return kRefusedStopped;
    }
    if (m_threadEnded) {
      if (!m_refusalLogged) {
        logFailure(
            "refusing events: the publisher's network thread has ended; stop the alert thread and raise the "
            "alert again to start a new publisher");
      }
      m_refusalLogged = true;
      return kRefusedThreadEnded;
    }
    if (m_guest && m_guest->append(payload)) {
      m_refusalLogged = false;
      return kQueued;  // the outbox's owner sends it
    }
    if (m_events.full()) {
      if (!m_refusalLogged) {
        logFailure("refusing events: " + std::to_string(capacity()) + " events are waiting for the broker");
      }
      m_refusalLogged = true;
      return kRefusedQueueFull;
    }
    const int64_t outboxId = m_outbox ? m_outbox->append(payload) : 0;
    m_events.push(std::move(payload), outboxId);
    m_refusalLogged = false;
  }
  wake();
  return kQueued;
}

void MqttPublisher::holdForFork() NO_THREAD_SAFETY_ANALYSIS {
  m_controlMutex.lock();
  if (m_outbox) m_outbox->holdForFork();
}

void MqttPublisher::releaseAfterFork(bool inChild) NO_THREAD_SAFETY_ANALYSIS {
  if (m_outbox) m_outbox->releaseAfterFork(inChild);
  m_controlMutex.unlock();
}

void MqttPublisher::stop() { stopWithin(kShutdownGrace); }

void MqttPublisher::stopWithin(std::chrono::seconds grace) {
  port::MutexLock serial(m_stopMutex);
  if (!m_network.joinable()) return;
  {
    port::MutexLock lock(m_controlMutex);
    m_stopRequested = true;
    m_stopDeadline = Clock::now() + grace;
  }
  wake();
  m_network.join();
  const PendingEvents::Dropped undelivered = m_events.clear();
  const std::string broker = m_broker.empty() ? "the broker" : "broker " + m_broker;
  const std::string within = " within " + std::to_string(grace.count()) + " s of shutdown";
  if (undelivered.inOutbox > 0) {
    logFailure(std::to_string(undelivered.inOutbox) + " events were not acknowledged by " + broker + within +
               ": they wait in the outbox " + m_outbox->path() + " for the next start");
  }
  if (undelivered.inMemoryOnly > 0) {
    logFailure(std::to_string(undelivered.inMemoryOnly) + " events were not delivered: " + broker +
               " did not acknowledge them" + within);
  }
  port::MutexLock lock(m_controlMutex);
  m_outbox.reset();
  m_guest.reset();
}

size_t MqttPublisher::capacity() const { return m_outbox || m_guest ? kOutboxCapacity : kMemoryCapacity; }

void MqttPublisher::run() {
  try {
    loadBacklog();
    for (;;) {
      const Clock::time_point now = Clock::now();
      Clock::time_point deadline;
      const bool stopping = stopRequested(deadline);
      // A guest that is stopping tries at once: its events then go out
      // within the grace, rather than waiting for the next owner.
      if (m_guest && (stopping || now >= m_nextAdoption)) takeOverOutbox(now);
      if (stopping && (m_events.size() == 0 || now >= deadline)) break;
      if (m_client == nullptr) {
        if (now >= m_nextAttempt) connect(now);
      } else if (!m_connected && now >= m_connectDeadline) {
        connectionFailed("broker " + m_broker + " did not accept the connection within " +
                         std::to_string(kConnectTimeout.count()) + " s");
      } else if (m_connected && now - m_events.owedSince().value_or(now) >= kAcknowledgementTimeout) {
        connectionFailed("lost the connection to broker " + m_broker + ": nothing acknowledged for " +
                         std::to_string(kAcknowledgementTimeout.count()) + " s");
      }
      if (m_connected) handOver();
      serviceNetwork(pollTimeoutMs(now, stopping, deadline));
      tidyOutbox(Clock::now());
    }
  } catch (const std::exception& e) {
    port::MutexLock lock(m_controlMutex);
    m_threadEnded = true;
    logFailure(std::string("the notification publisher's thread failed: ") + e.what() +
               (m_outbox ? "; the events in the outbox wait for the next start" : ""));
  }
  finish();
}

bool MqttPublisher::stopRequested(Clock::time_point& deadline) {
  port::MutexLock lock(m_controlMutex);
  deadline = m_stopDeadline;
  return m_stopRequested;
}

void MqttPublisher::connect(Clock::time_point now) {
  BrokerSettings settings;
  std::string error;
  if (!brokerSettings(*currentConfig(), settings, error)) {
    m_rotation.entryToTry(writtenRoute(), 1);
    connectionFailed("no broker to publish to: " + error);
    return;
  }
  const BrokerAddress& address =
      settings.addresses[m_rotation.entryToTry(brokerRoute(settings), settings.addresses.size())];
  const std::string previous = m_broker;
  m_broker = brokerText(address);
  // Every move to another entry (with a list, every attempt), so that the
  // spread of a fleet's attempts over time shows in its logs; a single
  // broker tried again and again is said once.
  if (m_broker != previous) ksu_logmsg_str(PROGRESS_LEVEL, kLogFunction, "connecting to broker " + m_broker);
  static const MqttCallbacks callbacks = {&MqttPublisher::onConnect, &MqttPublisher::onPublish, &MqttPublisher::onLog};
  MqttStartFailure failure;
  m_client = startMqttConnection(address, settings, nullptr, callbacks, this, kKeepAliveSeconds,
                                 static_cast<int>(kInFlight), failure);
  if (m_client == nullptr) {
    const std::string where = failure.step == MqttStartFailure::kMake    ? "cannot make an MQTT client"
                              : failure.step == MqttStartFailure::kSetUp ? "cannot connect to broker " + m_broker
                                                                         : "cannot reach broker " + m_broker;
    connectionFailed(where + ": " + failure.text);
    return;
  }
  m_connectDeadline = now + kConnectTimeout;
}

void MqttPublisher::handOver() {
  int failure = MOSQ_ERR_SUCCESS;
  int failureErrno = 0;
  m_events.handOver(kInFlight, [&](const std::string& payload, int* messageId) {
    failure = mosquitto_publish(m_client, messageId, kNotificationTopic, static_cast<int>(payload.size()),
                                payload.data(), kQos, false);
    failureErrno = errno;
    return failure == MOSQ_ERR_SUCCESS;
  });
  if (failure != MOSQ_ERR_SUCCESS) {
    connectionFailed("lost the connection to broker " + m_broker + ": " + mosquittoErrorText(failure, failureErrno));
  }
}

void MqttPublisher::serviceNetwork(int timeoutMs) {
  pollfd fds[2] = {{m_wakeFd, POLLIN, 0}, {-1, 0, 0}};
  nfds_t count = 1;
  if (m_client != nullptr && mosquitto_socket(m_client) >= 0) {
    fds[1].fd = mosquitto_socket(m_client);
    fds[1].events = static_cast<short>(POLLIN | (mosquitto_want_write(m_client) ? POLLOUT : 0));
    count = 2;
  }
  if (poll(fds, count, timeoutMs) < 0) {
    const int savedErrno = errno;
    if (savedErrno != EINTR) logFailure(std::string("poll failed: ") + std::strerror(savedErrno));
    return;
  }
  if (fds[0].revents != 0) drainWakeups();
  if (count < 2) return;

  const short ready = fds[1].revents;
  int result = MOSQ_ERR_SUCCESS;
  if ((ready & (POLLIN | POLLERR | POLLHUP)) != 0) result = mosquitto_loop_read(m_client, 1);
  if (result == MOSQ_ERR_SUCCESS && (ready & POLLOUT) != 0) result = mosquitto_loop_write(m_client, 1);
  if (result == MOSQ_ERR_SUCCESS) result = mosquitto_loop_misc(m_client);
  const int savedErrno = errno;
  EarlyEnd earlyEnd;
  if (m_refusedCode != 0) {  // libmosquitto also ends the loop call with an error then
    connectionFailed("broker " + m_broker + " refused the connection: " + mosquitto_connack_string(m_refusedCode));
  } else if (result != MOSQ_ERR_SUCCESS) {
    const std::string state = m_connected ? "lost the connection to broker " : "cannot reach broker ";
    connectionFailed(state + m_broker + ": " + mosquittoErrorText(result, savedErrno));
  } else if (!m_connected && (ready & (POLLHUP | POLLERR)) != 0 && connectionEndedEarly(m_client, earlyEnd)) {
    connectionFailed("cannot reach broker " + m_broker + ": " + earlyEnd.text);
  }
}

int MqttPublisher::pollTimeoutMs(Clock::time_point now, bool stopping, Clock::time_point deadline) const {
  Clock::time_point wakeAt = now + kLongestPoll;
  if (m_client == nullptr) wakeAt = std::min(wakeAt, m_nextAttempt);
  if (m_client != nullptr && !m_connected) wakeAt = std::min(wakeAt, m_connectDeadline);
  if (stopping) wakeAt = std::min(wakeAt, deadline);
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(wakeAt - Clock::now());
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(wait.count(), 0));
}

void MqttPublisher::connectionFailed(const std::string& what) {
  // One line per outage: the first failure after a working connection, or
  // the first since the publisher started.
  // OpenSSL's line says only that the certificate was refused; the check
  // that refused it says why.
  const std::string certificate = m_tlsFailure.empty() ? "" : refusedBrokerCertificate();
  const std::string tls =
      m_tlsFailure.empty() ? "" : " (" + m_tlsFailure + (certificate.empty() ? "" : ": " + certificate) + ")";
  if (!m_outageLogged) logFailure(what + tls + "; events wait until the broker can be reached");
  m_outageLogged = true;
  m_tlsFailure.clear();
  closeClient();
  m_nextAttempt = Clock::now() + m_rotation.attemptFailed();
}

void MqttPublisher::closeClient() {
  if (m_client != nullptr) mosquitto_destroy(m_client);
  m_client = nullptr;
  if (m_connected) metrics::brokerDisconnected();
  m_connected = false;
  m_refusedCode = 0;
  m_events.takeBack();  // the next connection sends them again
}

void MqttPublisher::finish() {
  if (m_client != nullptr && m_connected)
    mosquitto_disconnect(m_client);  // written at once: the client is not threaded
  closeClient();
  if (!m_outbox) return;
  m_outbox->remove(m_acknowledged);
}

void MqttPublisher::wake() {
  const uint64_t one = 1;
  // Otherwise fails only when the counter is saturated: the thread is due to wake then anyway.
  while (write(m_wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
  }
}

void MqttPublisher::drainWakeups() {
  uint64_t count;
  while (read(m_wakeFd, &count, sizeof count) > 0) {
  }
}

void MqttPublisher::onConnect(struct mosquitto* /*client*/, void* self, int code) {
  // libmosquitto calls this from C: nothing may unwind through it.
  try {
    auto* publisher = static_cast<MqttPublisher*>(self);
    if (code != 0) {
      publisher->m_refusedCode = code;
      return;
    }
    publisher->m_connected = true;
    publisher->m_outageLogged = false;
    publisher->m_rotation.connected();
    const std::string& left = publisher->m_lastReached;
    if (left.empty() || left == publisher->m_broker) {
      ksu_logmsg_str(PROGRESS_LEVEL, kLogFunction, "connected to broker " + publisher->m_broker);
    } else {
      // A node of the cluster is gone or was passed over: the operator's business.
      logFailure("switched from broker " + left + " to broker " + publisher->m_broker);
    }
    publisher->m_lastReached = publisher->m_broker;
    metrics::brokerConnected(publisher->m_broker, !left.empty() && left != publisher->m_broker);
  } catch (...) {
    // Only a log line could not be written; the connection stands.
  }
}

void MqttPublisher::onPublish(struct mosquitto* /*client*/, void* self, int messageId) {
  // libmosquitto calls this from C: nothing may unwind through it.
  try {
    auto* publisher = static_cast<MqttPublisher*>(self);
    const int64_t outboxId = publisher->m_events.acknowledge(messageId);
    if (outboxId != 0) publisher->m_acknowledged.push_back(outboxId);
  } catch (...) {
    // The event stays in the outbox and goes out again at the next start:
    // delivered at least once, as ever.
  }
}

void MqttPublisher::onLog(struct mosquitto* /*client*/, void* self, int level, const char* text) {
  // libmosquitto calls this from C: nothing may unwind through it.
  try {
    // libmosquitto tells why a TLS handshake failed (host name, certificate)
    // only through its log; the first error of an attempt is the reason.
    static const char kPrefix[] = "Error: ";
    std::string& failure = static_cast<MqttPublisher*>(self)->m_tlsFailure;
    if (level != MOSQ_LOG_ERR || !failure.empty()) return;
    failure = std::strncmp(text, kPrefix, sizeof kPrefix - 1) == 0 ? text + sizeof kPrefix - 1 : text;
    if (!failure.empty() && failure.back() == '.') failure.pop_back();
  } catch (...) {
    // The failure is then reported without libmosquitto's reason.
  }
}

}  // namespace standin
