#include "mqtt_subscriber.h"

#include <mosquitto.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <set>
#include <stdexcept>

namespace testbed {
namespace {

const int kKeepAliveSeconds = 30;
const std::chrono::seconds kSubscribeTimeout(10);

}  // namespace

MqttSubscriber::MqttSubscriber(int port, const std::string& topic) : m_topic(topic) {
  mosquitto_lib_init();
  static std::atomic<int> subscribers{0};  // each with a client id of its own
  const std::string id = "kscdp-test-" + std::to_string(getpid()) + "-" + std::to_string(++subscribers);
  m_client = mosquitto_new(id.c_str(), false, this);
  if (m_client == nullptr) throw std::runtime_error("mosquitto_new failed");
  mosquitto_connect_callback_set(m_client, &MqttSubscriber::onConnect);
  mosquitto_subscribe_callback_set(m_client, &MqttSubscriber::onSubscribe);
  mosquitto_message_callback_set(m_client, &MqttSubscriber::onMessage);
  mosquitto_reconnect_delay_set(m_client, 1, 1, false);
  int result = mosquitto_connect(m_client, "127.0.0.1", port, kKeepAliveSeconds);
  if (result == MOSQ_ERR_SUCCESS) result = mosquitto_loop_start(m_client);
  if (result != MOSQ_ERR_SUCCESS) {
    mosquitto_destroy(m_client);
    throw std::runtime_error(std::string("subscriber cannot connect: ") + mosquitto_strerror(result));
  }
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_changed.wait_for(lock, kSubscribeTimeout, [this] { return m_subscribed; })) {
    lock.unlock();
    mosquitto_disconnect(m_client);
    mosquitto_loop_stop(m_client, false);
    mosquitto_destroy(m_client);
    throw std::runtime_error("the broker did not confirm the subscription to " + topic);
  }
}

MqttSubscriber::~MqttSubscriber() {
  mosquitto_disconnect(m_client);
  mosquitto_loop_stop(m_client, false);
  mosquitto_destroy(m_client);
}

MqttSubscriber::Messages MqttSubscriber::waitUntil(const std::function<bool(const Messages&)>& done,
                                                   std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_changed.wait_for(lock, timeout, [&] { return done(m_messages); });
  return m_messages;
}

MqttSubscriber::Messages MqttSubscriber::waitForCount(size_t count, std::chrono::milliseconds timeout) {
  return waitUntil([count](const Messages& messages) { return messages.size() >= count; }, timeout);
}

MqttSubscriber::Messages MqttSubscriber::waitForCountAfter(size_t skipped, size_t count,
                                                           std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_changed.wait_for(lock, timeout, [&] { return m_messages.size() >= skipped + count; });
  if (m_messages.size() <= skipped) return {};
  return Messages(m_messages.begin() + static_cast<std::ptrdiff_t>(skipped), m_messages.end());
}

size_t MqttSubscriber::received() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_messages.size();
}

MqttSubscriber::Messages MqttSubscriber::waitForDistinct(size_t count, std::chrono::milliseconds timeout) {
  // Counted first: the condition runs under the lock that onMessage needs.
  return waitUntil([count](const Messages& got) { return got.size() >= count && withoutRepeats(got).size() >= count; },
                   timeout);
}

void MqttSubscriber::onConnect(struct mosquitto* client, void* self, int code) {
  // Subscribing again after a reconnect is harmless and covers a broker
  // that lost the session.
  if (code == 0) mosquitto_subscribe(client, nullptr, static_cast<MqttSubscriber*>(self)->m_topic.c_str(), 1);
}

void MqttSubscriber::onSubscribe(struct mosquitto* /*client*/, void* self, int /*messageId*/, int /*count*/,
                                 const int* /*grantedQos*/) {
  auto* subscriber = static_cast<MqttSubscriber*>(self);
  std::lock_guard<std::mutex> lock(subscriber->m_mutex);
  subscriber->m_subscribed = true;
  subscriber->m_changed.notify_all();
}

void MqttSubscriber::onMessage(struct mosquitto* /*client*/, void* self, const struct mosquitto_message* message) {
  auto* subscriber = static_cast<MqttSubscriber*>(self);
  std::lock_guard<std::mutex> lock(subscriber->m_mutex);
  const auto* bytes = static_cast<const char*>(message->payload);
  subscriber->m_messages.push_back(
      message->payloadlen > 0 ? std::string(bytes, static_cast<size_t>(message->payloadlen)) : std::string());
  subscriber->m_changed.notify_all();
}

MqttSubscriber::Messages withoutRepeats(const MqttSubscriber::Messages& messages) {
  std::set<std::string> seen;
  MqttSubscriber::Messages distinct;
  for (const std::string& message : messages) {
    if (seen.insert(message).second) distinct.push_back(message);
  }
  return distinct;
}

}  // namespace testbed
