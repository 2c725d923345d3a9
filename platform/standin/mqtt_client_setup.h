// How a libmosquitto client is set up to reach the broker: shared by the
// notification publisher and the operator's doctor, so that both connect the
// same way.
#ifndef KSCDP_PLATFORM_STANDIN_MQTT_CLIENT_SETUP_H_
#define KSCDP_PLATFORM_STANDIN_MQTT_CLIENT_SETUP_H_

#include <string>

#include "broker_settings.h"

struct mosquitto;

namespace standin {

// Text for a libmosquitto result, without a closing period, to go inside a
// sentence; `savedErrno` is errno right after the call.
std::string mosquittoErrorText(int result, int savedErrno);

// Sets `client` up as `settings` say, before it connects: with TLS, the
// broker's certificate and host name are verified against `caFile` (else the
// system's CA certificates) and a client certificate is presented when set;
// with a user, the password is read from its file (refused when others may
// read it). False, with what is wrong in `error`, when a file cannot be used.
bool applyBrokerSettings(struct mosquitto* client, const BrokerSettings& settings, std::string& error);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_MQTT_CLIENT_SETUP_H_
