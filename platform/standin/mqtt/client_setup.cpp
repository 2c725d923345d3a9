#include "platform/standin/mqtt/client_setup.h"

#include <mosquitto.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/standin/config/client_identity.h"

namespace standin {
namespace {

const char kSystemCaDirectory[] = "/etc/ssl/certs";
const int kVerifyPeer = 1;  // OpenSSL's SSL_VERIFY_PEER
// libmosquitto takes "tlsv1.3", "tlsv1.2" or "tlsv1.1" as the oldest version
// it offers: "tlsv1.2" still lets the broker choose TLS 1.3.
const char kOldestTlsVersion[] = "tlsv1.2";

bool readable(const std::string& path, const char* key, std::string& error) {
  if (access(path.c_str(), R_OK) == 0) return true;
  error = std::string("cannot read ") + key + " " + path + ": " + std::strerror(errno);
  return false;
}

const char* fileOrNull(const std::string& path) { return path.empty() ? nullptr : path.c_str(); }

}  // namespace

struct mosquitto* startMqttConnection(const BrokerAddress& address, const BrokerSettings& settings,
                                      const char* clientId, const MqttCallbacks& callbacks, void* owner,
                                      int keepAliveSeconds, int inFlight, MqttStartFailure& failure) {
  struct Destroy {
    void operator()(struct mosquitto* client) const { mosquitto_destroy(client); }
  };
  // Destroyed on every way out but success, a throw included.
  std::unique_ptr<struct mosquitto, Destroy> client(mosquitto_new(clientId, true, owner));
  if (client == nullptr) {
    failure.step = MqttStartFailure::kMake;
    failure.text = std::strerror(errno);
    return nullptr;
  }
  mosquitto_connect_callback_set(client.get(), callbacks.connected);
  mosquitto_publish_callback_set(client.get(), callbacks.published);
  if (callbacks.logged != nullptr) mosquitto_log_callback_set(client.get(), callbacks.logged);
  mosquitto_max_inflight_messages_set(client.get(), static_cast<unsigned int>(inFlight));
  if (!applyBrokerSettings(client.get(), settings, failure.text)) {
    failure.step = MqttStartFailure::kSetUp;
    return nullptr;
  }
  errno = 0;
  failure.result = mosquitto_connect_async(client.get(), address.host.c_str(), address.port, keepAliveSeconds);
  if (failure.result != MOSQ_ERR_SUCCESS) {
    failure.step = MqttStartFailure::kConnect;
    failure.text = mosquittoErrorText(failure.result, errno);
    return nullptr;
  }
  return client.release();
}

std::string mosquittoErrorText(int result, int savedErrno) {
  std::string text = result == MOSQ_ERR_ERRNO ? std::strerror(savedErrno) : mosquitto_strerror(result);
  if (!text.empty() && text.back() == '.') text.pop_back();
  return text;
}

bool applyBrokerSettings(struct mosquitto* client, const BrokerSettings& settings, std::string& error) {
  if (settings.tls) {
    if (!settings.caFile.empty() && !readable(settings.caFile, "broker_ca_file", error)) return false;
    ClientIdentity identity;
    if (!settings.certFile.empty() && !loadClientIdentity(settings.certFile, settings.keyFile, "broker_cert_file",
                                                          "broker_key_file", identity, error)) {
      return false;
    }
    int result =
        mosquitto_tls_set(client, fileOrNull(settings.caFile), settings.caFile.empty() ? kSystemCaDirectory : nullptr,
                          fileOrNull(settings.certFile), fileOrNull(settings.keyFile), nullptr);
    if (result == MOSQ_ERR_SUCCESS) result = mosquitto_tls_opts_set(client, kVerifyPeer, kOldestTlsVersion, nullptr);
    if (result == MOSQ_ERR_SUCCESS) result = mosquitto_tls_insecure_set(client, false);
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
