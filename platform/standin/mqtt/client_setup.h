// How a libmosquitto client reaches the broker: the one connect path of the
// notification publisher and the operator's doctor, so that both connect the
// same way.
#ifndef KSCDP_PLATFORM_STANDIN_MQTT_CLIENT_SETUP_H_
#define KSCDP_PLATFORM_STANDIN_MQTT_CLIENT_SETUP_H_

#include <string>

#include "platform/standin/config/broker_settings.h"

struct mosquitto;

namespace standin {

// Text for a libmosquitto result, without a closing period, to go inside a
// sentence; `savedErrno` is errno right after the call.
std::string mosquittoErrorText(int result, int savedErrno);

// Sets `client` up as `settings` say, before it connects to `host`: with TLS,
// through a context made by makeBrokerTlsContext() (the broker's certificate
// and name verified, a client certificate presented when set, every file read
// once and checked); with a user, the password is read from its file (refused
// when others may read it). False, with what is wrong in `error`, when a file
// cannot be used.
bool applyBrokerSettings(struct mosquitto* client, const BrokerSettings& settings, const std::string& host,
                         std::string& error);

// The callbacks of a client's owner; libmosquitto passes them `owner`, from
// the thread that runs the client's loop, and nothing may unwind through them.
struct MqttCallbacks {
  void (*connected)(struct mosquitto* client, void* owner, int code);
  void (*published)(struct mosquitto* client, void* owner, int messageId);
  void (*logged)(struct mosquitto* client, void* owner, int level, const char* text);  // null: none
};

// Why startMqttConnection() failed, and at which step.
struct MqttStartFailure {
  enum Step { kMake, kSetUp, kConnect } step = kMake;
  int result = 0;    // libmosquitto's result, at kConnect
  std::string text;  // what went wrong, to go inside a sentence
};

// Makes a client (named `clientId`, or by libmosquitto when null) with
// `callbacks` for `owner` and at most `inFlight` messages in flight, sets it
// up as `settings` say, and starts its connection to `address` with
// `keepAliveSeconds`: the caller's network loop completes it. The client, or
// null with why in `failure` (nothing is left to destroy). Blocks only while
// the address is looked up.
struct mosquitto* startMqttConnection(const BrokerAddress& address, const BrokerSettings& settings,
                                      const char* clientId, const MqttCallbacks& callbacks, void* owner,
                                      int keepAliveSeconds, int inFlight, MqttStartFailure& failure);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_MQTT_CLIENT_SETUP_H_
