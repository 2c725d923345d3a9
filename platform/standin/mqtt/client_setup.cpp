#include "platform/standin/mqtt/client_setup.h"

#include <mosquitto.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/standin/files/close_on_exec.h"
#include "platform/standin/mqtt/broker_tls_context.h"

namespace standin {
namespace {

const size_t kWakeUpSockets = 2;

}  // namespace

struct mosquitto* startMqttConnection(const BrokerAddress& address, const BrokerSettings& settings,
                                      const char* clientId, const MqttCallbacks& callbacks, void* owner,
                                      int keepAliveSeconds, int inFlight, MqttStartFailure& failure) {
  struct Destroy {
    void operator()(struct mosquitto* client) const { mosquitto_destroy(client); }
  };
  // Destroyed on every way out but success, a throw included.
  std::unique_ptr<struct mosquitto, Destroy> client;
  int savedErrno = 0;
  // libmosquitto opens a socket pair for its own loop's wake-up, without
  // close-on-exec, and does not say which; the publisher runs its own loop.
  // Should another thread open sockets meanwhile, none is marked: the client
  // works all the same.
  markSocketsOpenedBy(kWakeUpSockets, [&] {
    client.reset(mosquitto_new(clientId, true, owner));
    savedErrno = errno;
  });
  if (client == nullptr) {
    failure.step = MqttStartFailure::kMake;
    failure.text = std::strerror(savedErrno);
    return nullptr;
  }
  mosquitto_connect_callback_set(client.get(), callbacks.connected);
  mosquitto_publish_callback_set(client.get(), callbacks.published);
  if (callbacks.logged != nullptr) mosquitto_log_callback_set(client.get(), callbacks.logged);
  mosquitto_max_inflight_messages_set(client.get(), static_cast<unsigned int>(inFlight));
  if (!applyBrokerSettings(client.get(), settings, address.host, failure.text)) {
    failure.step = MqttStartFailure::kSetUp;
    return nullptr;
  }
  // libmosquitto names its connection's socket only once it is open: it is
  // marked close-on-exec at once, with fork() held off when no name lookup
  // can make that wait long.
  const auto connect = [&] {
    errno = 0;
    failure.result = mosquitto_connect_async(client.get(), address.host.c_str(), address.port, keepAliveSeconds);
    savedErrno = errno;
    setCloseOnExec(mosquitto_socket(client.get()));
  };
  if (isIpAddress(address.host)) {
    withForkHeldOff(connect);
  } else {
    connect();
  }
  if (failure.result != MOSQ_ERR_SUCCESS) {
    failure.step = MqttStartFailure::kConnect;
    failure.text = mosquittoErrorText(failure.result, savedErrno);
    return nullptr;
  }
  return client.release();
}

std::string mosquittoErrorText(int result, int savedErrno) {
  std::string text = result == MOSQ_ERR_ERRNO ? std::strerror(savedErrno) : mosquitto_strerror(result);
  if (!text.empty() && text.back() == '.') text.pop_back();
  return text;
}

bool applyBrokerSettings(struct mosquitto* client, const BrokerSettings& settings, const std::string& host,
                         std::string& error) {
  if (settings.tls) {
    // libmosquitto keeps a reference of its own to the context; with its
    // defaults off it opens none of the files again.
    const SslContext context = makeBrokerTlsContext(settings, host, error);
    if (!context) return false;
    int result = mosquitto_int_option(client, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0);
    if (result == MOSQ_ERR_SUCCESS) result = mosquitto_void_option(client, MOSQ_OPT_SSL_CTX, context.get());
    if (result != MOSQ_ERR_SUCCESS) {
      error = "cannot set up TLS: " + mosquittoErrorText(result, errno);
      return false;
    }
  }
  if (settings.user.empty()) return true;
  std::string password;
  if (!settings.passwordFile.empty() && !readBrokerPassword(settings.passwordFile, password, error)) return false;
  const int result = mosquitto_username_pw_set(client, settings.user.c_str(),
                                               settings.passwordFile.empty() ? nullptr : password.c_str());
  if (result != MOSQ_ERR_SUCCESS) {
    error = "cannot set the credentials: " + mosquittoErrorText(result, errno);
    return false;
  }
  return true;
}

}  // namespace standin
