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
#include <initializer_list>
#include <new>
#include <system_error>

#include "platform/ksu_log.h"
#include "platform/standin/config/protocol.h"
#include "platform/standin/counters/metrics.h"
#include "platform/standin/mqtt/broker_tls_context.h"
#include "platform/standin/mqtt/client_setup.h"
#include "platform/standin/mqtt/early_close.h"
#include "platform/standin/mqtt/mosquitto_library.h"
#include "platform/standin/publisher/publisher_log.h"
#include "platform/standin/publisher/registry.h"

namespace standin {
namespace {

const int kQos = 1;
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
const std::chrono::seconds kLongestPoll(1);              // the client's keep-alive needs a turn this often
const std::chrono::milliseconds kMemoryRetryPause(100);  // after a turn that ran out of memory

// For the network thread's last resort: short of memory, the line is lost.
// The line is joined from its parts here, so that an allocation that fails
// while it is built is caught too.
void logFailureNoThrow(std::initializer_list<const char*> parts) noexcept {
  try {
    std::string message;
    for (const char* part : parts) message += part;
    logPublisherFailure(message);
  } catch (...) {
  }
}

int openWakeFd() {
  const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (fd < 0) {
    const int error = errno;
    logPublisherFailure(std::string("cannot start the notification publisher: eventfd: ") + std::strerror(error));
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
    : m_events(m_outbox.capacity()),
      m_wakeFd(openWakeFd()),
      m_rotation(kFirstRetryDelay, kLongestRetryDelay, kRetryDelayAfterLoss, rotationSeed()) {
  useMosquittoLibrary();
  try {
    m_network = std::thread(&MqttPublisher::run, this);
  } catch (const std::system_error& e) {
    logPublisherFailure(std::string("cannot start the notification publisher's thread: ") + e.what());
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
    logPublisherFailure("refused an event of " + std::to_string(payload.size()) +
                        " bytes: too large for one MQTT message");
    return kRefusedTooLarge;
  }
  {
    // Held across the push, so that an event is either refused or seen by
    // the network thread before it stops.
    port::MutexLock lock(m_controlMutex);
    if (m_stopDeadline) {
      logPublisherFailure("refused an event: the publisher has been shut down");
      return kRefusedStopped;
    }
    if (m_threadEnded) {
      if (!m_refusalLogged) {
        logPublisherFailure(
            "refusing events: the publisher's network thread has ended; stop the alert thread and raise the "
            "alert again to start a new publisher");
      }
      m_refusalLogged = true;
      return kRefusedThreadEnded;
    }
    const OutboxSide::Stored stored = m_outbox.accept(std::move(payload), m_events);
    if (stored == OutboxSide::Stored::kFull) {
      if (!m_refusalLogged) {
        logPublisherFailure("refusing events: " + std::to_string(m_outbox.capacity()) +
                            " events are waiting for the broker");
      }
      m_refusalLogged = true;
      return kRefusedQueueFull;
    }
    m_refusalLogged = false;
    // Otherwise the network thread need not turn for this event: it hands
    // it over after those it holds, when an acknowledgement or a connection
    // wakes it.
    if (stored != OutboxSide::Stored::kQueuedWakeNetwork) return kQueued;
  }
  wake();
  return kQueued;
}

void MqttPublisher::holdForFork() NO_THREAD_SAFETY_ANALYSIS {
  m_controlMutex.lock();
  m_outbox.holdForFork();
}

void MqttPublisher::releaseAfterFork(bool inChild) NO_THREAD_SAFETY_ANALYSIS {
  m_outbox.releaseAfterFork(inChild);
  m_controlMutex.unlock();
}

void MqttPublisher::stop() { stopWithin(kShutdownGrace); }

void MqttPublisher::stopWithin(std::chrono::seconds grace) {
  port::MutexLock serial(m_stopMutex);
  if (!m_network.joinable()) return;
  {
    port::MutexLock lock(m_controlMutex);
    m_stopDeadline = Clock::now() + grace;
  }
  wake();
  m_network.join();
  m_networkThread.claim();  // the thread is gone: what it owned is this one's
  m_outbox.storeBeforeClosing(m_events);
  const PendingEvents::Dropped undelivered = m_events.clear();
  try {
    const std::string& last = m_attempt.broker;
    const std::string broker = last.empty() ? "the broker" : "broker " + last;
    const std::string within = " within " + std::to_string(grace.count()) + " s of shutdown";
    if (undelivered.inOutbox > 0) {
      logPublisherFailure(std::to_string(undelivered.inOutbox) + " events were not acknowledged by " + broker + within +
                          ": they wait in " + m_outbox.whereStoredEventsWait());
    }
    if (undelivered.inMemoryOnly > 0) {
      logPublisherFailure(std::to_string(undelivered.inMemoryOnly) + " events were not delivered: " + broker +
                          " did not acknowledge them" + within);
    }
  } catch (const std::bad_alloc&) {
    // Short of memory, the lines are lost; the publisher stops all the same.
  }
  m_outbox.close();
}

void MqttPublisher::run() {
  m_networkThread.claim();
  m_outbox.keeper().claim();
  // A failed allocation ends a turn, not the thread: the next turn takes up
  // where the failed one stopped (a backlog read again may queue an event
  // twice, never lose one). Anything else ends it.
  bool backlogLoaded = false;
  for (bool running = true; running;) {
    try {
      if (!backlogLoaded) m_outbox.loadBacklog(m_events);
      backlogLoaded = true;
      running = turn();
    } catch (const std::bad_alloc&) {
      if (!m_memoryShortLogged) logFailureNoThrow({"the notification publisher is short of memory; it tries again"});
      m_memoryShortLogged = true;
      pause(static_cast<int>(kMemoryRetryPause.count()));
    } catch (const std::exception& e) {
      const bool inOutbox = m_outbox.ownsOutbox();
      port::MutexLock lock(m_controlMutex);
      m_threadEnded = true;
      logFailureNoThrow({"the notification publisher's thread failed: ", e.what(),
                         inOutbox ? "; the events in the outbox wait for the next start" : ""});
      running = false;
    }
  }
  finish();
}

bool MqttPublisher::turn() {
  const Clock::time_point now = Clock::now();
  const std::optional<Clock::time_point> stopBy = stopDeadline();
  if (stopBy) m_outbox.takeInLiveGuests(m_events);
  m_outbox.takeOverWhenFree(now, stopBy.has_value(), m_events);
  if (stopBy && (m_events.size() == 0 || now >= *stopBy)) return false;
  if (m_attempt.client == nullptr) {
    if (now >= m_nextAttempt) connect(now);
  } else if (!m_attempt.connected && now >= m_attempt.connectBy) {
    connectionFailed("broker " + m_attempt.broker + " did not accept the connection within " +
                     std::to_string(kConnectTimeout.count()) + " s");
  } else if (m_attempt.connected && now - m_events.owedSince().value_or(now) >= kAcknowledgementTimeout) {
    connectionFailed("lost the connection to broker " + m_attempt.broker + ": nothing acknowledged for " +
                     std::to_string(kAcknowledgementTimeout.count()) + " s");
  }
  if (m_attempt.connected) handOver();
  serviceNetwork(pollTimeoutMs(now, stopBy));
  m_outbox.tidy(Clock::now(), m_events);
  return true;
}

void MqttPublisher::pause(int timeoutMs) noexcept {
  pollfd wakeup = {m_wakeFd, POLLIN, 0};
  poll(&wakeup, 1, timeoutMs);
}

std::optional<MqttPublisher::Clock::time_point> MqttPublisher::stopDeadline() {
  port::MutexLock lock(m_controlMutex);
  return m_stopDeadline;
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
  const std::string previous = m_attempt.broker;
  m_attempt.broker = brokerText(address);
  // Every move to another entry (with a list, every attempt), so that the
  // spread of a fleet's attempts over time shows in its logs; a single
  // broker tried again and again is said once.
  if (m_attempt.broker != previous) logPublisherProgress("connecting to broker " + m_attempt.broker);
  static const MqttCallbacks callbacks = {&MqttPublisher::onConnect, &MqttPublisher::onPublish, &MqttPublisher::onLog};
  MqttStartFailure failure;
  m_attempt.client = startMqttConnection(address, settings, nullptr, callbacks, this, kKeepAliveSeconds,
                                         static_cast<int>(kInFlight), failure);
  if (m_attempt.client == nullptr) {
    const std::string where = failure.step == MqttStartFailure::kMake ? "cannot make an MQTT client"
                              : failure.step == MqttStartFailure::kSetUp
                                  ? "cannot connect to broker " + m_attempt.broker
                                  : "cannot reach broker " + m_attempt.broker;
    connectionFailed(where + ": " + failure.text);
    return;
  }
  m_attempt.connectBy = now + kConnectTimeout;
}

void MqttPublisher::handOver() {
  struct mosquitto* const client = m_attempt.client;
  int failure = MOSQ_ERR_SUCCESS;
  int failureErrno = 0;
  m_events.handOver(kInFlight, [&](const std::string& payload, int* messageId) {
    failure = mosquitto_publish(client, messageId, kNotificationTopic, static_cast<int>(payload.size()), payload.data(),
                                kQos, false);
    failureErrno = errno;
    return failure == MOSQ_ERR_SUCCESS;
  });
  if (failure != MOSQ_ERR_SUCCESS) {
    connectionFailed("lost the connection to broker " + m_attempt.broker + ": " +
                     mosquittoErrorText(failure, failureErrno));
  }
}

void MqttPublisher::serviceNetwork(int timeoutMs) {
  pollfd fds[2] = {{m_wakeFd, POLLIN, 0}, {-1, 0, 0}};
  nfds_t count = 1;
  struct mosquitto* const client = m_attempt.client;
  if (client != nullptr && mosquitto_socket(client) >= 0) {
    fds[1].fd = mosquitto_socket(client);
    fds[1].events = static_cast<short>(POLLIN | (mosquitto_want_write(client) ? POLLOUT : 0));
    count = 2;
  }
  if (poll(fds, count, timeoutMs) < 0) {
    const int savedErrno = errno;
    if (savedErrno == EINTR) return;
    if (!m_pollFailureLogged) logPublisherFailure(std::string("poll failed: ") + std::strerror(savedErrno));
    m_pollFailureLogged = true;
    return;
  }
  if (fds[0].revents != 0) drainWakeups();
  if (count < 2) return;

  const short ready = fds[1].revents;
  int result = MOSQ_ERR_SUCCESS;
  if ((ready & (POLLIN | POLLERR | POLLHUP)) != 0) result = mosquitto_loop_read(client, 1);
  if (result == MOSQ_ERR_SUCCESS && (ready & POLLOUT) != 0) result = mosquitto_loop_write(client, 1);
  if (result == MOSQ_ERR_SUCCESS) result = mosquitto_loop_misc(client);
  const int savedErrno = errno;
  EarlyEnd earlyEnd;
  if (m_attempt.refusedCode != 0) {  // libmosquitto also ends the loop call with an error then
    connectionFailed("broker " + m_attempt.broker +
                     " refused the connection: " + mosquitto_connack_string(m_attempt.refusedCode));
  } else if (result != MOSQ_ERR_SUCCESS) {
    const std::string state = m_attempt.connected ? "lost the connection to broker " : "cannot reach broker ";
    connectionFailed(state + m_attempt.broker + ": " + mosquittoErrorText(result, savedErrno));
  } else if (!m_attempt.connected && (ready & (POLLHUP | POLLERR)) != 0 && connectionEndedEarly(client, earlyEnd)) {
    connectionFailed("cannot reach broker " + m_attempt.broker + ": " + earlyEnd.text);
  }
}

int MqttPublisher::pollTimeoutMs(Clock::time_point now, std::optional<Clock::time_point> stopBy) const {
  Clock::time_point wakeAt = now + kLongestPoll;
  if (m_attempt.client == nullptr) wakeAt = std::min(wakeAt, m_nextAttempt);
  if (m_attempt.client != nullptr && !m_attempt.connected) wakeAt = std::min(wakeAt, m_attempt.connectBy);
  if (stopBy) wakeAt = std::min(wakeAt, *stopBy);
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(wakeAt - Clock::now());
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(wait.count(), 0));
}

void MqttPublisher::connectionFailed(const std::string& what) {
  // One line per outage: the first failure after a working connection, or
  // the first since the publisher started.
  // OpenSSL's line says only that the certificate was refused; the check
  // that refused it says why.
  const std::string& tlsFailure = m_attempt.tlsFailure;
  const std::string certificate = tlsFailure.empty() ? "" : refusedBrokerCertificate();
  const std::string tls =
      tlsFailure.empty() ? "" : " (" + tlsFailure + (certificate.empty() ? "" : ": " + certificate) + ")";
  if (!m_outageLogged) logPublisherFailure(what + tls + "; events wait until the broker can be reached");
  m_outageLogged = true;
  closeClient();
  m_nextAttempt = Clock::now() + m_rotation.attemptFailed();
}

void MqttPublisher::closeClient() {
  if (m_attempt.client != nullptr) mosquitto_destroy(m_attempt.client);
  if (m_attempt.connected) metrics::brokerDisconnected();
  Attempt closed;
  closed.broker = std::move(m_attempt.broker);
  m_attempt = std::move(closed);
  m_events.takeBack();  // the next connection sends them again
}

void MqttPublisher::finish() {
  if (m_attempt.client != nullptr && m_attempt.connected)
    mosquitto_disconnect(m_attempt.client);  // written at once: the client is not threaded
  closeClient();
  try {
    m_outbox.removeAcknowledged();
  } catch (const std::bad_alloc&) {
    // They stay in the outbox: the next start delivers them again.
  }
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
    publisher->m_networkThread.claim();
    Attempt& attempt = publisher->m_attempt;
    if (code != 0) {
      attempt.refusedCode = code;
      return;
    }
    attempt.connected = true;
    publisher->m_outageLogged = false;
    publisher->m_pollFailureLogged = false;
    publisher->m_memoryShortLogged = false;
    publisher->m_rotation.connected();
    std::string& lastReached = publisher->m_lastReached;
    if (lastReached.empty() || lastReached == attempt.broker) {
      logPublisherProgress("connected to broker " + attempt.broker);
    } else {
      // A node of the cluster is gone or was passed over: the operator's business.
      logPublisherFailure("switched from broker " + lastReached + " to broker " + attempt.broker);
    }
    metrics::brokerConnected(attempt.broker, !lastReached.empty() && lastReached != attempt.broker);
    lastReached = attempt.broker;
  } catch (...) {
    // Only a log line could not be written; the connection stands.
  }
}

void MqttPublisher::onPublish(struct mosquitto* /*client*/, void* self, int messageId) {
  // libmosquitto calls this from C: nothing may unwind through it.
  try {
    auto* publisher = static_cast<MqttPublisher*>(self);
    publisher->m_outbox.keeper().claim();
    publisher->m_outbox.acknowledged(publisher->m_events.acknowledge(messageId));
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
    auto* publisher = static_cast<MqttPublisher*>(self);
    publisher->m_networkThread.claim();
    std::string& failure = publisher->m_attempt.tlsFailure;
    if (level != MOSQ_LOG_ERR || !failure.empty()) return;
    failure = std::strncmp(text, kPrefix, sizeof kPrefix - 1) == 0 ? text + sizeof kPrefix - 1 : text;
    if (!failure.empty() && failure.back() == '.') failure.pop_back();
  } catch (...) {
    // The failure is then reported without libmosquitto's reason.
  }
}

}  // namespace standin
