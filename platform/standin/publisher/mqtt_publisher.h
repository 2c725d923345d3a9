// The notification publisher's MQTT side: a queue of payloads and the network
// thread that delivers them to the broker.
#ifndef KSCDP_PLATFORM_STANDIN_PUBLISHER_MQTT_PUBLISHER_H_
#define KSCDP_PLATFORM_STANDIN_PUBLISHER_MQTT_PUBLISHER_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/standin/config/broker_settings.h"
#include "platform/standin/mqtt/broker_rotation.h"
#include "platform/standin/outbox/guest.h"
#include "platform/standin/outbox/outbox.h"
#include "platform/standin/publisher/pending_events.h"
#include "platform/standin/publisher/registry.h"
#include "port/mutex.h"

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
// payloads go to a guest file beside it instead, which the owner sends; the
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

  // Outbox events read at a time while the backlog loads.
  static const size_t kBacklogPage = 1000;

  // stop(), waiting up to `grace` for acknowledgements.
  void stopWithin(std::chrono::seconds grace);
  // The outbox the configuration names, or null (logged unless it is
  // "none"); when another process owns it, `guest` gets this process's guest
  // file beside it instead.
  static std::unique_ptr<Outbox> openOutbox(OutboxLocation& location, std::unique_ptr<GuestOutbox>& guest);
  // How many events may wait: more with an outbox, where they wait on disk.
  size_t capacity() const;
  // A guest becomes the outbox's owner once the owner is gone: it opens the
  // outbox, moves its own guest file's events in and loads the backlog.
  // Tried every second, and when stop() is called; the network thread's.
  void takeOverOutbox(Clock::time_point now);
  void startOutboxAfresh(std::string found);
  void loadBacklog();
  void run();
  bool stopRequested(Clock::time_point& deadline);
  void connect(Clock::time_point now);
  void handOver();
  void serviceNetwork(int timeoutMs);
  void tidyOutbox(Clock::time_point now);
  int pollTimeoutMs(Clock::time_point now, bool stopping, Clock::time_point deadline) const;
  void connectionFailed(const std::string& what);
  void closeClient();
  void finish();
  void wake();
  void drainWakeups();

  static void onConnect(struct mosquitto* client, void* self, int code);
  static void onPublish(struct mosquitto* client, void* self, int messageId);
  static void onLog(struct mosquitto* client, void* self, int level, const char* text);

  // Where accepted events are stored: m_outbox when this process owns the
  // outbox, m_guest while another does (its owner sends them), neither
  // without one. Set in the constructor (m_guest first, declared first), then
  // changed only under m_controlMutex by the network thread (damage, taking
  // over) and by stop() once that thread is gone. publish() reads them under
  // the lock; the network thread, their only other writer, without it.
  // m_outboxLocation, set in the constructor, is where both live.
  OutboxLocation m_outboxLocation;
  std::unique_ptr<GuestOutbox> m_guest;
  std::unique_ptr<Outbox> m_outbox;
  PendingEvents m_events;
  const int m_wakeFd;  // eventfd: publish() and stop() wake the network thread through it

  port::Mutex m_controlMutex;
  bool m_stopRequested GUARDED_BY(m_controlMutex) = false;
  Clock::time_point m_stopDeadline GUARDED_BY(m_controlMutex);
  bool m_refusalLogged GUARDED_BY(m_controlMutex) = false;  // one log line per run of refusals
  bool m_threadEnded GUARDED_BY(m_controlMutex) = false;    // the network thread ended on a failure

  port::Mutex m_stopMutex;  // serialises stop()
  std::thread m_network;

  // Owned by the network thread. A client lives for one connection attempt
  // and the connection it makes; the next attempt starts with a fresh one.
  struct mosquitto* m_client = nullptr;
  std::string m_broker;       // "host:port" of the current or last attempt; read by stop() after the join
  std::string m_lastReached;  // "host:port" of the last connection made; empty before the first
  BrokerRotation m_rotation;
  bool m_connected = false;
  int m_refusedCode = 0;  // non-zero: the broker answered CONNECT with this refusal
  bool m_outageLogged = false;
  std::string m_tlsFailure;             // the first error libmosquitto logged in this attempt
  std::vector<int64_t> m_acknowledged;  // outbox ids of acknowledged events, removed in batches
  Clock::time_point m_nextRemoval;
  Clock::time_point m_nextCheckpoint;
  Clock::time_point m_nextAdoption;
  Clock::time_point m_connectDeadline;
  Clock::time_point m_nextAttempt;
};

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_PUBLISHER_MQTT_PUBLISHER_H_
