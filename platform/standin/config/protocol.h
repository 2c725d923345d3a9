// Where the stand-in platform reaches the master's services when the
// configuration names no other place, and what it publishes on: the one home
// of these constants for the stand-ins, the doctor, the simulators and the
// tests.
#ifndef KSCDP_PLATFORM_STANDIN_CONFIG_PROTOCOL_H_
#define KSCDP_PLATFORM_STANDIN_CONFIG_PROTOCOL_H_

namespace standin {

// The request daemon: POST <base URL><kDaemonPath><kind>, the base URL
// http://<master server>:<kDaemonPort> unless "ksqd_url" says otherwise.
constexpr int kDaemonPort = 8557;
constexpr char kDaemonPath[] = "/ksqd/";

// The MQTT broker: <master server>:<kBrokerPort> unless "broker" says
// otherwise; kBrokerTlsPort with "broker_tls = on".
constexpr int kBrokerPort = 1883;
constexpr int kBrokerTlsPort = 8883;

// Every notification event goes to this topic, with QoS 1.
constexpr char kNotificationTopic[] = "keepstone/notifications";

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CONFIG_PROTOCOL_H_
