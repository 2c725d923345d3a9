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
#include <vector>

#include "fork_hooks.h"
#include "guest_outbox.h"
#include "mosquitto_library.h"
#include "mqtt_client_setup.h"
#include "outbox_settings.h"
#include "platform/ksu_log.h"
#include "port/no_destructor.h"
#include "protocol.h"
#include "unload.h"

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
const std::chrono::seconds kLongestPoll(1);         // the client's keep-alive needs a turn this often
const std::chrono::seconds kCheckpointInterval(1);  // how far the outbox's disk copy may lag behind
const std::chrono::seconds kAdoptionInterval(1);    // how long a guest's event may wait for its owner
// Acknowledged events leave the outbox in batches: a removal is a commit
// that appends wait for. One that is lost only lets the next start deliver
// the event again, as an acknowledgement lost on the way would.
const std::chrono::milliseconds kRemovalInterval(100);
const size_t kRemovalBatch = 500;

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

// The outbox the configuration names, or null (logged unless it is "none").
// When another process owns it, `guest` gets this process's guest file
// beside it instead.
std::unique_ptr<Outbox> openOutbox(std::unique_ptr<GuestOutbox>& guest) {
  std::string path;
  std::string error;
  if (!readOutboxPath(path, error)) {
    logFailure("cannot tell where the outbox is: " + error + "; alerts wait in memory only");
    return nullptr;
  }
  if (path.empty()) return nullptr;
  bool fullSync = true;
  if (!readOutboxSync(fullSync, error)) logFailure(error + "; every alert is synced to the disk meanwhile");
  bool ownedElsewhere = false;
  std::unique_ptr<Outbox> outbox = Outbox::open(path, fullSync, error, ownedElsewhere);
  if (outbox) return outbox;
  if (ownedElsewhere) {
    const std::string why = error;
    guest = GuestOutbox::open(path, fullSync, error);
    if (guest) {
      ksu_logmsg_str(PROGRESS_LEVEL, kLogFunction,
                     "the outbox " + path + " is not this process's (" + why + "): alerts wait in " + guest->path() +
                         " until its owner sends them");
      return nullptr;
    }
  }
  logFailure("cannot use the outbox " + path + ": " + error + "; alerts wait in memory only");
  return nullptr;
}

// Every publisher of the process, for the fork handlers. Never destroyed:
// the process may exit while a publisher lives.
struct LivePublishers {
  port::Mutex mutex;
  std::vector<MqttPublisher*> publishers GUARDED_BY(mutex);
};
port::NoDestructor<LivePublishers> g_live;

}  // namespace

const ForkHooks kPublisherForkHooks = {&MqttPublisher::prepareFork, &MqttPublisher::parentAfterFork,
                                       &MqttPublisher::childAfterFork};

MqttPublisher::MqttPublisher()
    : m_outbox(openOutbox(m_guest)), m_events(capacity()), m_wakeFd(openWakeFd()), m_retryDelay(kFirstRetryDelay) {
  useMosquittoLibrary();
  try {
    m_network = std::thread(&MqttPublisher::run, this);
  } catch (const std::system_error& e) {
    logFailure(std::string("cannot start the notification publisher's thread: ") + e.what());
    close(m_wakeFd);
    throw;
  }
  try {
    port::MutexLock lock(g_live->mutex);
    g_live->publishers.push_back(this);
  } catch (...) {
    stop();
    close(m_wakeFd);
    throw;
  }
}

MqttPublisher::~MqttPublisher() {
  {
    port::MutexLock lock(g_live->mutex);
    std::vector<MqttPublisher*>& live = g_live->publishers;
    live.erase(std::remove(live.begin(), live.end(), this), live.end());
  }
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
    if (m_backlogLoaded) {
      m_events.push(std::move(payload), outboxId);
    } else {
      if (m_firstOwnId == 0) m_firstOwnId = outboxId;
      m_heldBeforeLoad.push_back(Outbox::Event{outboxId, std::move(payload)});
    }
    m_refusalLogged = false;
  }
  wake();
  return kQueued;
}

void MqttPublisher::prepareFork() NO_THREAD_SAFETY_ANALYSIS {
  g_live->mutex.lock();
  for (MqttPublisher* publisher : g_live->publishers) {
    publisher->m_controlMutex.lock();
    if (publisher->m_outbox) publisher->m_outbox->holdForFork();
  }
}

void MqttPublisher::parentAfterFork() NO_THREAD_SAFETY_ANALYSIS {
  for (MqttPublisher* publisher : g_live->publishers) {
    if (publisher->m_outbox) publisher->m_outbox->releaseAfterFork(false);
    publisher->m_controlMutex.unlock();
  }
  g_live->mutex.unlock();
}

void MqttPublisher::childAfterFork() NO_THREAD_SAFETY_ANALYSIS {
  for (MqttPublisher* publisher : g_live->publishers) {
    if (publisher->m_outbox) publisher->m_outbox->releaseAfterFork(true);
    publisher->m_controlMutex.unlock();
  }
  g_live->publishers.clear();  // the parent's, which the child never destroys
  g_live->mutex.unlock();
}

bool releasePublisherRegistry() {
  port::MutexLock lock(g_live->mutex);
  if (!g_live->publishers.empty()) return false;
  std::vector<MqttPublisher*>().swap(g_live->publishers);
  return true;
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
  PendingEvents::Dropped undelivered = m_events.clear();
  {
    port::MutexLock lock(m_controlMutex);  // held only when the thread failed before it queued them
    for (const Outbox::Event& event : m_heldBeforeLoad)
      ++(event.id != 0 ? undelivered.inOutbox : undelivered.inMemoryOnly);
    m_heldBeforeLoad.clear();
  }
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

void MqttPublisher::startOutboxAfresh(std::string found) {
  port::MutexLock lock(m_controlMutex);
  const std::string path = m_outbox->path();
  if (!m_outbox->startAfreshAsDamaged(found)) {
    logFailure("cannot use the outbox " + path + ": " + found + "; alerts wait in memory only");
    m_outbox.reset();
  }
  // What this publisher stored went with the damaged file: store it again.
  m_firstOwnId = 0;
  for (Outbox::Event& event : m_heldBeforeLoad) {
    event.id = m_outbox ? m_outbox->append(event.payload) : 0;
    if (m_firstOwnId == 0) m_firstOwnId = event.id;
  }
}

void MqttPublisher::loadBacklog() {
  // The whole file is checked here rather than when it is opened, since
  // reading it all takes longer than an alert may wait.
  if (m_outbox) {
    const std::string damage = m_outbox->checkWhole();
    if (!damage.empty()) startOutboxAfresh(damage);
  }
  // Pages are read without the control lock, so that an alert raised
  // meanwhile waits for its own append only. The outbox is this process's
  // alone: a row from the first id this publisher stored on is its own, and
  // already held in memory, in the order raised.
  size_t backlog = 0;
  for (int64_t last = 0; m_outbox;) {
    const std::vector<Outbox::Event> page = m_outbox->waiting(last, kBacklogPage);
    port::MutexLock lock(m_controlMutex);
    for (const Outbox::Event& event : page) {
      if (m_firstOwnId != 0 && event.id >= m_firstOwnId) break;
      m_events.push(event.payload, last = event.id);
      ++backlog;
    }
    if (page.size() < kBacklogPage || last != page.back().id) break;
  }
  port::MutexLock lock(m_controlMutex);
  for (Outbox::Event& event : m_heldBeforeLoad) m_events.push(std::move(event.payload), event.id);
  std::vector<Outbox::Event>().swap(m_heldBeforeLoad);
  m_backlogLoaded = true;
  if (backlog > 0) {
    ksu_logmsg_str(PROGRESS_LEVEL, kLogFunction,
                   std::to_string(backlog) + " events waiting in the outbox " + m_outbox->path() + " go out first");
  }
}

size_t MqttPublisher::capacity() const { return m_outbox || m_guest ? kOutboxCapacity : kMemoryCapacity; }

void MqttPublisher::takeOverOutbox(Clock::time_point now) {
  m_nextAdoption = now + kAdoptionInterval;
  std::string path;
  std::string error;
  bool fullSync = true;
  bool ownedElsewhere = false;
  if (!readOutboxPath(path, error) || path.empty()) return;
  readOutboxSync(fullSync, error);
  std::unique_ptr<Outbox> outbox = Outbox::open(path, fullSync, error, ownedElsewhere);
  if (!outbox) return;  // still another's, or not usable: the guest file serves meanwhile
  {
    // Alerts wait meanwhile, so that none goes to the guest file after its
    // last events were moved out of it.
    port::MutexLock lock(m_controlMutex);
    m_guest.reset();
    outbox->adoptGuests();
    m_outbox = std::move(outbox);
    m_backlogLoaded = false;
    m_firstOwnId = 0;
  }
  ksu_logmsg_str(PROGRESS_LEVEL, kLogFunction,
                 "the outbox " + path + " is this process's now: its events go out from here");
  loadBacklog();
}

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
    m_entries = 1;
    connectionFailed("no broker to publish to: " + error);
    return;
  }
  m_entries = settings.addresses.size();
  if (m_entry >= m_entries) m_entry = 0;  // the list became shorter
  const BrokerAddress& address = settings.addresses[m_entry];
  m_broker = brokerText(address);
  m_client = mosquitto_new(nullptr, true, this);
  if (m_client == nullptr) {
    const int savedErrno = errno;
    connectionFailed(std::string("cannot make an MQTT client: ") + std::strerror(savedErrno));
    return;
  }
  mosquitto_connect_callback_set(m_client, &MqttPublisher::onConnect);
  mosquitto_publish_callback_set(m_client, &MqttPublisher::onPublish);
  mosquitto_log_callback_set(m_client, &MqttPublisher::onLog);
  mosquitto_max_inflight_messages_set(m_client, kInFlight);
  if (!applyBrokerSettings(m_client, settings, error)) {
    connectionFailed("cannot connect to broker " + m_broker + ": " + error);
    return;
  }
  const int result = mosquitto_connect_async(m_client, address.host.c_str(), address.port, kKeepAliveSeconds);
  const int savedErrno = errno;
  if (result != MOSQ_ERR_SUCCESS) {
    connectionFailed("cannot reach broker " + m_broker + ": " + mosquittoErrorText(result, savedErrno));
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
  if (m_refusedCode != 0) {  // libmosquitto also ends the loop call with an error then
    connectionFailed("broker " + m_broker + " refused the connection: " + mosquitto_connack_string(m_refusedCode));
  } else if (result != MOSQ_ERR_SUCCESS) {
    const std::string state = m_connected ? "lost the connection to broker " : "cannot reach broker ";
    connectionFailed(state + m_broker + ": " + mosquittoErrorText(result, savedErrno));
  }
}

void MqttPublisher::tidyOutbox(Clock::time_point now) {
  if (!m_outbox) return;
  if (now >= m_nextAdoption) {
    std::vector<Outbox::Event> adopted = m_outbox->adoptGuests();
    port::MutexLock lock(m_controlMutex);
    for (Outbox::Event& event : adopted) m_events.push(std::move(event.payload), event.id);
    m_nextAdoption = now + kAdoptionInterval;
  }
  if (now >= m_nextRemoval || m_acknowledged.size() >= kRemovalBatch) {
    m_outbox->remove(m_acknowledged);
    m_acknowledged.clear();
    m_nextRemoval = now + kRemovalInterval;
  }
  if (now < m_nextCheckpoint && !m_outbox->walPastBound()) return;
  m_outbox->requestCheckpoint();
  m_nextCheckpoint = now + kCheckpointInterval;
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
  const std::string tls = m_tlsFailure.empty() ? "" : " (" + m_tlsFailure + ")";
  if (!m_outageLogged) logFailure(what + tls + "; events wait until the broker can be reached");
  m_outageLogged = true;
  m_tlsFailure.clear();
  closeClient();
  m_entry = (m_entry + 1) % m_entries;
  if (++m_failedInRound < m_entries) {
    m_nextAttempt = Clock::now();
    return;
  }
  m_failedInRound = 0;
  m_nextAttempt = Clock::now() + m_retryDelay;
  m_retryDelay = std::min<Clock::duration>(m_retryDelay * 2, kLongestRetryDelay);
}

void MqttPublisher::closeClient() {
  if (m_client != nullptr) mosquitto_destroy(m_client);
  m_client = nullptr;
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
    publisher->m_failedInRound = 0;
    publisher->m_retryDelay = kFirstRetryDelay;
    const std::string& left = publisher->m_lastReached;
    if (left.empty() || left == publisher->m_broker) {
      ksu_logmsg_str(PROGRESS_LEVEL, kLogFunction, "connected to broker " + publisher->m_broker);
    } else {
      // A node of the cluster is gone or was passed over: the operator's business.
      logFailure("switched from broker " + left + " to broker " + publisher->m_broker);
    }
    publisher->m_lastReached = publisher->m_broker;
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
