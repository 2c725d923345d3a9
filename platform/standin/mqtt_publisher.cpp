#include "mqtt_publisher.h"

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

#include "mqtt_client_setup.h"
#include "outbox_settings.h"
#include "platform/ksu_log.h"

namespace standin {
namespace {

const char kTopic[] = "keepstone/notifications";
const int kQos = 1;
const size_t kMemoryCapacity = 10000;
const size_t kOutboxCapacity = 100000;
const size_t kInFlight = 20;  // handed to the client at a time, as many as it keeps in flight
const int kKeepAliveSeconds = 30;
// An MQTT PUBLISH carries at most 268,435,455 bytes after its fixed header:
// the topic with its length, the message id and the payload.
const size_t kLargestPayload = 268435455 - (2 + sizeof kTopic - 1) - 2;

const std::chrono::seconds kShutdownGrace(5);
const std::chrono::seconds kConnectTimeout(10);
const std::chrono::milliseconds kFirstRetryDelay(100);
const std::chrono::seconds kLongestRetryDelay(1);
const std::chrono::seconds kLongestPoll(1);  // the client's keep-alive needs a turn this often
const std::chrono::seconds kCheckpointInterval(1);  // how far the outbox's disk copy may lag behind

const char kLogFunction[] = "NotificationSupplier";
const int kFailureLevel = 16;
const int kProgressLevel = 4;

void logFailure(const std::string& message) { ksu_logmsg_str(kFailureLevel, kLogFunction, message); }

int openWakeFd() {
  const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (fd < 0) {
    const int error = errno;
    logFailure(std::string("cannot start the notification publisher: eventfd: ") + std::strerror(error));
    throw std::system_error(error, std::generic_category(), "eventfd");
  }
  return fd;
}

// The outbox the configuration names, or null (logged unless it is "none").
std::unique_ptr<Outbox> openOutbox() {
  std::string path;
  std::string error;
  if (!readOutboxPath(path, error)) {
    logFailure("cannot tell where the outbox is: " + error + "; alerts wait in memory only");
    return nullptr;
  }
  if (path.empty()) return nullptr;
  std::unique_ptr<Outbox> outbox = Outbox::open(path, error);
  if (!outbox) logFailure("cannot use the outbox " + path + ": " + error + "; alerts wait in memory only");
  return outbox;
}


}  // namespace

MqttPublisher::MqttPublisher()
    : outbox_(openOutbox()),
      events_(outbox_ ? kOutboxCapacity : kMemoryCapacity),
      wakeFd_(openWakeFd()),
      retryDelay_(kFirstRetryDelay) {
  static std::once_flag libraryReady;
  std::call_once(libraryReady, [] { mosquitto_lib_init(); });
  if (outbox_) {
    // An earlier publisher's events go out first, in the order they were raised.
    const std::vector<Outbox::Event> waiting = outbox_->waiting();
    for (const Outbox::Event& event : waiting) events_.push(event.payload, event.id);
    if (!waiting.empty()) {
      ksu_logmsg_str(kProgressLevel, kLogFunction,
                     std::to_string(waiting.size()) + " events waiting in the outbox " + outbox_->path() +
                         " go out first");
    }
  }
  try {
    network_ = std::thread(&MqttPublisher::run, this);
  } catch (const std::system_error& e) {
    logFailure(std::string("cannot start the notification publisher's thread: ") + e.what());
    close(wakeFd_);
    throw;
  }
}

MqttPublisher::~MqttPublisher() {
  stop();
  close(wakeFd_);
}

int MqttPublisher::publish(std::string payload) {
  if (payload.size() > kLargestPayload) {
    logFailure("refused an event of " + std::to_string(payload.size()) + " bytes: too large for one MQTT message");
    return kRefusedTooLarge;
  }
  {
    // Held across the push, so that an event is either refused or seen by
    // the network thread before it stops.
    port::MutexLock lock(controlMutex_);
    if (stopRequested_) {
      logFailure("refused an event: the publisher has been shut down");
      return kRefusedStopped;
    }
    if (threadEnded_) {
      if (!refusalLogged_) {
        logFailure("refusing events: the publisher's network thread has ended; stop the alert thread and raise the "
                   "alert again to start a new publisher");
      }
      refusalLogged_ = true;
      return kRefusedThreadEnded;
    }
    if (events_.full()) {
      if (!refusalLogged_) {
        logFailure("refusing events: " + std::to_string(outbox_ ? kOutboxCapacity : kMemoryCapacity) +
                   " events are waiting for the broker");
      }
      refusalLogged_ = true;
      return kRefusedQueueFull;
    }
    const int64_t outboxId = outbox_ ? outbox_->append(payload) : 0;
    events_.push(std::move(payload), outboxId);
    refusalLogged_ = false;
  }
  wake();
  return kQueued;
}

void MqttPublisher::stop() {
  port::MutexLock serial(stopMutex_);
  if (!network_.joinable()) return;
  {
    port::MutexLock lock(controlMutex_);
    stopRequested_ = true;
    stopDeadline_ = Clock::now() + kShutdownGrace;
  }
  wake();
  network_.join();
  const PendingEvents::Dropped undelivered = events_.clear();
  const std::string broker = broker_.empty() ? "the broker" : "broker " + broker_;
  const std::string within = " within " + std::to_string(kShutdownGrace.count()) + " s of shutdown";
  if (undelivered.inOutbox > 0) {
    logFailure(std::to_string(undelivered.inOutbox) + " events were not acknowledged by " + broker + within +
               ": they wait in the outbox " + outbox_->path() + " for the next start");
  }
  if (undelivered.inMemoryOnly > 0) {
    logFailure(std::to_string(undelivered.inMemoryOnly) + " events were not delivered: " + broker +
               " did not acknowledge them" + within);
  }
  port::MutexLock lock(controlMutex_);
  outbox_.reset();
}

void MqttPublisher::run() {
  try {
    for (;;) {
      const Clock::time_point now = Clock::now();
      Clock::time_point deadline;
      const bool stopping = stopRequested(deadline);
      if (stopping && (events_.size() == 0 || now >= deadline)) break;
      if (client_ == nullptr) {
        if (now >= nextAttempt_) connect(now);
      } else if (!connected_ && now >= connectDeadline_) {
        connectionFailed("broker " + broker_ + " did not accept the connection within " +
                         std::to_string(kConnectTimeout.count()) + " s");
      }
      if (connected_) handOver();
      serviceNetwork(pollTimeoutMs(now, stopping, deadline));
      tidyOutbox(Clock::now());
    }
  } catch (const std::exception& e) {
    port::MutexLock lock(controlMutex_);
    threadEnded_ = true;
    logFailure(std::string("the notification publisher's thread failed: ") + e.what() +
               (outbox_ ? "; the events in the outbox wait for the next start" : ""));
  }
  finish();
}

bool MqttPublisher::stopRequested(Clock::time_point& deadline) {
  port::MutexLock lock(controlMutex_);
  deadline = stopDeadline_;
  return stopRequested_;
}

void MqttPublisher::connect(Clock::time_point now) {
  BrokerSettings settings;
  std::string error;
  if (!readBrokerSettings(settings, error)) {
    connectionFailed("no broker to publish to: " + error);
    return;
  }
  const BrokerAddress& address = settings.address;
  broker_ = address.host + ":" + std::to_string(address.port);
  client_ = mosquitto_new(nullptr, true, this);
  if (client_ == nullptr) {
    const int savedErrno = errno;
    connectionFailed(std::string("cannot make an MQTT client: ") + std::strerror(savedErrno));
    return;
  }
  mosquitto_connect_callback_set(client_, &MqttPublisher::onConnect);
  mosquitto_publish_callback_set(client_, &MqttPublisher::onPublish);
  mosquitto_log_callback_set(client_, &MqttPublisher::onLog);
  mosquitto_max_inflight_messages_set(client_, kInFlight);
  if (!applyBrokerSettings(client_, settings, error)) {
    connectionFailed("cannot connect to broker " + broker_ + ": " + error);
    return;
  }
  const int result = mosquitto_connect_async(client_, address.host.c_str(), address.port, kKeepAliveSeconds);
  const int savedErrno = errno;
  if (result != MOSQ_ERR_SUCCESS) {
    connectionFailed("cannot reach broker " + broker_ + ": " + mosquittoErrorText(result, savedErrno));
    return;
  }
  connectDeadline_ = now + kConnectTimeout;
}

void MqttPublisher::handOver() {
  int failure = MOSQ_ERR_SUCCESS;
  int failureErrno = 0;
  events_.handOver(kInFlight, [&](const std::string& payload, int* messageId) {
    failure = mosquitto_publish(client_, messageId, kTopic, static_cast<int>(payload.size()), payload.data(), kQos,
                                false);
    failureErrno = errno;
    return failure == MOSQ_ERR_SUCCESS;
  });
  if (failure != MOSQ_ERR_SUCCESS) {
    connectionFailed("lost the connection to broker " + broker_ + ": " + mosquittoErrorText(failure, failureErrno));
  }
}

void MqttPublisher::serviceNetwork(int timeoutMs) {
  pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {-1, 0, 0}};
  nfds_t count = 1;
  if (client_ != nullptr && mosquitto_socket(client_) >= 0) {
    fds[1].fd = mosquitto_socket(client_);
    fds[1].events = static_cast<short>(POLLIN | (mosquitto_want_write(client_) ? POLLOUT : 0));
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
  if ((ready & (POLLIN | POLLERR | POLLHUP)) != 0) result = mosquitto_loop_read(client_, 1);
  if (result == MOSQ_ERR_SUCCESS && (ready & POLLOUT) != 0) result = mosquitto_loop_write(client_, 1);
  if (result == MOSQ_ERR_SUCCESS) result = mosquitto_loop_misc(client_);
  const int savedErrno = errno;
  if (refusedCode_ != 0) {  // libmosquitto also ends the loop call with an error then
    connectionFailed("broker " + broker_ + " refused the connection: " + mosquitto_connack_string(refusedCode_));
  } else if (result != MOSQ_ERR_SUCCESS) {
    const std::string state = connected_ ? "lost the connection to broker " : "cannot reach broker ";
    connectionFailed(state + broker_ + ": " + mosquittoErrorText(result, savedErrno));
  }
}

void MqttPublisher::tidyOutbox(Clock::time_point now) {
  if (!outbox_) return;
  outbox_->remove(acknowledged_);
  acknowledged_.clear();
  if (now < nextCheckpoint_) return;
  outbox_->checkpoint();
  nextCheckpoint_ = now + kCheckpointInterval;
}

int MqttPublisher::pollTimeoutMs(Clock::time_point now, bool stopping, Clock::time_point deadline) const {
  Clock::time_point wakeAt = now + kLongestPoll;
  if (client_ == nullptr) wakeAt = std::min(wakeAt, nextAttempt_);
  if (client_ != nullptr && !connected_) wakeAt = std::min(wakeAt, connectDeadline_);
  if (stopping) wakeAt = std::min(wakeAt, deadline);
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(wakeAt - Clock::now());
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(wait.count(), 0));
}

void MqttPublisher::connectionFailed(const std::string& what) {
  // One line per outage: the first failure after a working connection, or
  // the first since the publisher started.
  const std::string tls = tlsFailure_.empty() ? "" : " (" + tlsFailure_ + ")";
  if (!outageLogged_) logFailure(what + tls + "; events wait until the broker can be reached");
  outageLogged_ = true;
  tlsFailure_.clear();
  closeClient();
  nextAttempt_ = Clock::now() + retryDelay_;
  retryDelay_ = std::min<Clock::duration>(retryDelay_ * 2, kLongestRetryDelay);
}

void MqttPublisher::closeClient() {
  if (client_ != nullptr) mosquitto_destroy(client_);
  client_ = nullptr;
  connected_ = false;
  refusedCode_ = 0;
  events_.takeBack();  // the next connection sends them again
}

void MqttPublisher::finish() {
  if (client_ != nullptr && connected_) mosquitto_disconnect(client_);  // written at once: the client is not threaded
  closeClient();
  if (!outbox_) return;
  outbox_->remove(acknowledged_);
  acknowledged_.clear();
}

void MqttPublisher::wake() {
  const uint64_t one = 1;
  // Otherwise fails only when the counter is saturated: the thread is due to wake then anyway.
  while (write(wakeFd_, &one, sizeof one) < 0 && errno == EINTR) {
  }
}

void MqttPublisher::drainWakeups() {
  uint64_t count;
  while (read(wakeFd_, &count, sizeof count) > 0) {
  }
}

void MqttPublisher::onConnect(struct mosquitto* /*client*/, void* self, int code) {
  auto* publisher = static_cast<MqttPublisher*>(self);
  if (code != 0) {
    publisher->refusedCode_ = code;
    return;
  }
  publisher->connected_ = true;
  publisher->outageLogged_ = false;
  publisher->retryDelay_ = kFirstRetryDelay;
  ksu_logmsg_str(kProgressLevel, kLogFunction, "connected to broker " + publisher->broker_);
}

void MqttPublisher::onPublish(struct mosquitto* /*client*/, void* self, int messageId) {
  auto* publisher = static_cast<MqttPublisher*>(self);
  const int64_t outboxId = publisher->events_.acknowledge(messageId);
  if (outboxId != 0) publisher->acknowledged_.push_back(outboxId);
}

void MqttPublisher::onLog(struct mosquitto* /*client*/, void* self, int level, const char* text) {
  // libmosquitto tells why a TLS handshake failed (host name, certificate)
  // only through its log; the first error of an attempt is the reason.
  static const char kPrefix[] = "Error: ";
  std::string& failure = static_cast<MqttPublisher*>(self)->tlsFailure_;
  if (level != MOSQ_LOG_ERR || !failure.empty()) return;
  failure = std::strncmp(text, kPrefix, sizeof kPrefix - 1) == 0 ? text + sizeof kPrefix - 1 : text;
  if (!failure.empty() && failure.back() == '.') failure.pop_back();
}

}  // namespace standin
