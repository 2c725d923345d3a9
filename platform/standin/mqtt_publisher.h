// The notification publisher's MQTT side: a queue of payloads and the network
// thread that delivers them to the broker.
#ifndef KSCDP_PLATFORM_STANDIN_MQTT_PUBLISHER_H_
#define KSCDP_PLATFORM_STANDIN_MQTT_PUBLISHER_H_

#include <chrono>
#include <mutex>
#include <string>
#include <thread>

#include "pending_events.h"

struct mosquitto;

namespace standin {

// Publishes payloads to topic "keepstone/notifications" with QoS 1, in the
// order they were accepted, from a network thread of its own that lives from
// construction until stop(). The broker is read from the configuration file
// on every connection attempt. A payload stays queued until the broker has
// acknowledged it: while the broker cannot be reached, payloads wait and go
// out when it is back; after a lost connection, everything not acknowledged
// is sent again (so the broker may see a payload twice, never lose one).
// Failures are logged at level 16 under "NotificationSupplier".
class MqttPublisher {
 public:
  static const int kQueued = 0;
  static const int kRefusedQueueFull = 1;  // 10,000 payloads waiting
  static const int kRefusedStopped = 2;    // stop() has been called
  static const int kRefusedTooLarge = 3;   // larger than an MQTT message can carry

  // Starts the network thread; throws std::system_error when it cannot.
  MqttPublisher();
  // Stops first if stop() has not been called.
  ~MqttPublisher();
  MqttPublisher(const MqttPublisher&) = delete;
  MqttPublisher& operator=(const MqttPublisher&) = delete;

  // kQueued, or one of the refusals above (logged). Thread-safe.
  int publish(std::string payload);
  // Waits up to 5 s for every queued payload to be acknowledged, then
  // disconnects and joins the network thread. What is still queued then is
  // logged as not delivered. Later calls do nothing.
  void stop();

 private:
  using Clock = std::chrono::steady_clock;

  void run();
  bool stopRequested(Clock::time_point& deadline);
  void connect(Clock::time_point now);
  void handOver();
  void serviceNetwork(int timeoutMs);
  int pollTimeoutMs(Clock::time_point now, bool stopping, Clock::time_point deadline) const;
  void connectionFailed(const std::string& what);
  void closeClient();
  void finish();
  void wake();
  void drainWakeups();

  static void onConnect(struct mosquitto* client, void* self, int code);
  static void onPublish(struct mosquitto* client, void* self, int messageId);

  PendingEvents events_;
  const int wakeFd_;  // eventfd: publish() and stop() wake the network thread through it

  std::mutex controlMutex_;
  bool stopRequested_ = false;      // guarded by controlMutex_
  Clock::time_point stopDeadline_;  // guarded by controlMutex_
  bool refusalLogged_ = false;      // guarded by controlMutex_; one log line per run of refusals

  std::mutex stopMutex_;  // serialises stop()
  std::thread network_;

  // Owned by the network thread. A client lives for one connection attempt
  // and the connection it makes; the next attempt starts with a fresh one.
  struct mosquitto* client_ = nullptr;
  std::string broker_;  // "host:port" of the current or last attempt; read by stop() after the join
  bool connected_ = false;
  int refusedCode_ = 0;  // non-zero: the broker answered CONNECT with this refusal
  bool outageLogged_ = false;
  Clock::time_point connectDeadline_;
  Clock::time_point nextAttempt_;
  Clock::duration retryDelay_;
};

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_MQTT_PUBLISHER_H_
