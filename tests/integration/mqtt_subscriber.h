// A real MQTT subscriber for tests that check what reached the broker.
#ifndef KSCDP_TESTS_INTEGRATION_MQTT_SUBSCRIBER_H_
#define KSCDP_TESTS_INTEGRATION_MQTT_SUBSCRIBER_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

struct mosquitto;
struct mosquitto_message;

namespace testbed {

// Subscribes to one topic on 127.0.0.1:<port> with QoS 1 and records every
// payload it receives, on libmosquitto's own thread. Its session outlives
// its connection (clean_session false), and it reconnects by itself after a
// broker restart, so with a broker that keeps sessions it misses nothing.
class MqttSubscriber {
 public:
  using Messages = std::vector<std::string>;

  // Returns once the broker has confirmed the subscription; throws
  // std::runtime_error when that does not happen within 10 s.
  MqttSubscriber(int port, const std::string& topic);
  ~MqttSubscriber();
  MqttSubscriber(const MqttSubscriber&) = delete;
  MqttSubscriber& operator=(const MqttSubscriber&) = delete;

  // Waits until `done` holds for the payloads received so far, or `timeout`
  // has passed; returns the payloads received by then, in arrival order.
  Messages waitUntil(const std::function<bool(const Messages&)>& done, std::chrono::milliseconds timeout);
  // Waits for at least `count` payloads.
  Messages waitForCount(size_t count, std::chrono::milliseconds timeout);
  // Waits for at least `count` distinct payloads.
  Messages waitForDistinct(size_t count, std::chrono::milliseconds timeout);
  // Waits for at least `count` payloads after the first `skipped`; returns
  // those that came after the first `skipped`, without copying the others.
  Messages waitForCountAfter(size_t skipped, size_t count, std::chrono::milliseconds timeout);
  // How many payloads it has received so far.
  size_t received();

 private:
  static void onConnect(struct mosquitto* client, void* self, int code);
  static void onSubscribe(struct mosquitto* client, void* self, int messageId, int count, const int* grantedQos);
  static void onMessage(struct mosquitto* client, void* self, const struct mosquitto_message* message);

  const std::string m_topic;
  struct mosquitto* m_client = nullptr;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_subscribed = false;  // guarded by m_mutex
  Messages m_messages;        // guarded by m_mutex
};

// `messages` without the repeats of an earlier payload: QoS 1 delivers at
// least once, so a payload may arrive twice after a lost connection.
MqttSubscriber::Messages withoutRepeats(const MqttSubscriber::Messages& messages);

}  // namespace testbed

#endif  // KSCDP_TESTS_INTEGRATION_MQTT_SUBSCRIBER_H_
