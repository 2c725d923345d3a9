// The notification publisher's MQTT side: a queue of payloads and the network
// thread that delivers them to the broker.
#ifndef KSCDP_PLATFORM_STANDIN_PUBLISHER_MQTT_PUBLISHER_H_
#define KSCDP_PLATFORM_STANDIN_PUBLISHER_MQTT_PUBLISHER_H_

#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "platform/standin/config/broker_settings.h"
#include "platform/standin/mqtt/broker_rotation.h"
#include "platform/standin/publisher/outbox_side.h"
#include "platform/standin/publisher/pending_events.h"
#include "platform/standin/publisher/registry.h"
#include "port/mutex.h"
#include "port/thread_annotations.h"
#include "port/thread_role.h"

struct mosquitto;

namespace standin {

// Publishes payloads to topic "keepstone/notifications" with QoS 1, in the
// order they were accepted, from a network thread of its own that lives from
// construction until stop(). The broker and how to reach it (TLS,
// credentials) are read from the configuration file on every connection
// attempt. A payload stays queued until the broker has acknowledged it: while
// the broker cannot be reached, payloads wait and go out when it is back;
// after a lost connection, everything not acknowledged is sent again (so the
// broker may see a payload twice, never lose one).
//
// With a list of brokers (a cluster's nodes), BrokerRotation picks the entry
// to try, along the route that "broker_order" gives, and the pause before it. A connection to another broker than the
// last one is logged at level 16, naming both.
//
// With an outbox (the "outbox" key), every accepted payload is also in the
// outbox before publish() returns and leaves it once acknowledged; what an
// earlier publisher left there goes out first. The network thread reads that
// backlog, so neither the constructor nor publish() waits for it. While
// another process owns the outbox (or this one was forked from its owner),
// payloads are kept in a guest file beside it instead until acknowledged,
// and still sent from here (what is left there, the owner sends); the
// publisher becomes the owner once the outbox is free. Without an outbox, or
// when it cannot be used, payloads wait in memory only. Failures are logged
// at level 16 under "NotificationSupplier".
class MqttPublisher final : public ForkingPublisher {
 public:
  static const int kQueued = 0;
  static const int kRefusedQueueFull = 1;    // 100,000 payloads waiting (10,000 without an outbox)
  static const int kRefusedStopped = 2;      // stop() has been called
  static const int kRefusedTooLarge = 3;     // larger than an MQTT message can carry
  static const int kRefusedThreadEnded = 4;  // the network thread ended on a failure

  // Starts the network thread; throws std::system_error when it cannot.
  MqttPublisher();
  // Without stop() first (the library is being unloaded, or the process
  // exits), leaves at once: waits up to 1 s for what is in flight, then
  // stops as stop() does, so that no thread runs the library's code once it
  // is unmapped.
  ~MqttPublisher();
  MqttPublisher(const MqttPublisher&) = delete;
  MqttPublisher& operator=(const MqttPublisher&) = delete;

  // kQueued, or one of the refusals above (logged). Thread-safe.
  int publish(std::string payload);
  // Waits up to 5 s for every queued payload to be acknowledged, then
  // disconnects, joins the network thread and closes the outbox. What is
  // still queued then is logged: as waiting in the outbox for the next start,
  // or as not delivered. Later calls do nothing.
  void stop();

  // Around fork() (registry.h): holds publishing and the outbox in
  // the forking thread, then lets them go; in a child, without touching the
  // connection, the outbox or the thread, which are the parent's.
  void holdForFork() override ACQUIRE(m_controlMutex);
  void releaseAfterFork(bool inChild) override RELEASE(m_controlMutex);

 private:
  using Clock = std::chrono::steady_clock;

  // One connection attempt and the connection it makes. A client lives for
  // one attempt; the next starts with a fresh one.
  struct Attempt {
    std::string broker;  // "host:port"; kept once the client closes, for stop()'s lines
    struct mosquitto* client = nullptr;
    bool connected = false;
    int refusedCode = 0;          // non-zero: the broker answered CONNECT with this refusal
    std::string tlsFailure;       // the first error libmosquitto logged in this attempt
    Clock::time_point connectBy;  // when an attempt not yet accepted fails
  };

  // stop(), waiting up to `grace` for acknowledgements.
  void stopWithin(std::chrono::seconds grace) EXCLUDES(m_stopMutex, m_controlMutex);

  // The network thread: connects, hands the queue's oldest events to the
  // connection, services it, and keeps the outbox side up, until stop().
  void run();
  // One turn of the network thread; false once it should stop.
  bool turn() REQUIRES(m_networkThread, m_outbox.keeper());
  // Waits up to `timeoutMs`, or until publish() or stop() wakes the thread.
  void pause(int timeoutMs) noexcept;
  // When stop() has asked the network thread to end by, if it has.
  std::optional<Clock::time_point> stopDeadline() EXCLUDES(m_controlMutex);
  void connect(Clock::time_point now) REQUIRES(m_networkThread);
  void handOver() REQUIRES(m_networkThread);
  void serviceNetwork(int timeoutMs) REQUIRES(m_networkThread);
  int pollTimeoutMs(Clock::time_point now, std::optional<Clock::time_point> stopBy) const REQUIRES(m_networkThread);
  void connectionFailed(const std::string& what) REQUIRES(m_networkThread);
  void closeClient() REQUIRES(m_networkThread);
  void finish() REQUIRES(m_networkThread, m_outbox.keeper());
  void wake();
  void drainWakeups();

  // libmosquitto calls these from the network thread's loop calls.
  static void onConnect(struct mosquitto* client, void* self, int code);
  static void onPublish(struct mosquitto* client, void* self, int messageId);
  static void onLog(struct mosquitto* client, void* self, int level, const char* text);

  // Lock order: m_stopMutex, m_controlMutex, then m_outbox's lock and
  // m_events' own.
  OutboxSide m_outbox;     // locks itself; its keeper is the network thread
  PendingEvents m_events;  // locks itself
  const int m_wakeFd;      // eventfd: publish() and stop() wake the network thread through it

  // Held by publish() from its checks until the event is queued, so that an
  // event is either refused or seen by the network thread before it ends.
  port::Mutex m_controlMutex;
  // Set by stop(): the network thread ends once the queue is empty, or then.
  std::optional<Clock::time_point> m_stopDeadline GUARDED_BY(m_controlMutex);
  bool m_refusalLogged GUARDED_BY(m_controlMutex) = false;  // one log line per run of refusals
  bool m_threadEnded GUARDED_BY(m_controlMutex) = false;    // the network thread ended on a failure

  port::Mutex m_stopMutex;  // serialises stop()
  std::thread m_network GUARDED_BY(m_stopMutex);

  // The network thread's, and the stopper's once it has joined that thread.
  port::ThreadRole m_networkThread;
  Attempt m_attempt GUARDED_BY(m_networkThread);
  std::string m_lastReached GUARDED_BY(m_networkThread);  // "host:port" of the last connection made
  BrokerRotation m_rotation GUARDED_BY(m_networkThread);
  bool m_outageLogged GUARDED_BY(m_networkThread) = false;
  // Failures of the thread's own that recur at every turn: logged once per
  // connection.
  bool m_pollFailureLogged GUARDED_BY(m_networkThread) = false;
  bool m_memoryShortLogged GUARDED_BY(m_networkThread) = false;
  Clock::time_point m_nextAttempt GUARDED_BY(m_networkThread);
};

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_PUBLISHER_MQTT_PUBLISHER_H_
