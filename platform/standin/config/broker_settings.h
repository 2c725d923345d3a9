// How the notification publisher reaches its MQTT broker: the addresses of
// its nodes, TLS and credentials, from the stand-in keys of the
// configuration file.
#ifndef KSCDP_PLATFORM_STANDIN_CONFIG_BROKER_SETTINGS_H_
#define KSCDP_PLATFORM_STANDIN_CONFIG_BROKER_SETTINGS_H_

#include <string>
#include <vector>

#include "platform/standin/config/broker_address.h"
#include "platform/standin/config/broker_route.h"
#include "platform/standin/config/config_file.h"

namespace standin {

struct BrokerSettings {
  // "broker": one node, or a cluster's nodes in the order they are tried;
  // without the key, the master server on 1883 (8883 with TLS). Never empty.
  // TLS and credentials apply to every node.
  std::vector<BrokerAddress> addresses;
  bool spread = false;       // "broker_order = spread"; "written" (the default): false
  std::string hostName;      // with spread: "host_name", else the system's host name
  bool tls = false;          // "broker_tls = on": peer and host name verified
  std::string caFile;        // "broker_ca_file"; empty: the system's CA certificates
  std::string certFile;      // "broker_cert_file" and "broker_key_file": a client
  std::string keyFile;       //   certificate, both or neither
  std::string user;          // "broker_user"; empty: no credentials; only with TLS
  std::string passwordFile;  // "broker_password_file": the password is its first line
};

// The settings `config` holds. On failure returns false and says in `error`
// what is wrong and what to change.
bool brokerSettings(const ConfigSnapshot& config, BrokerSettings& settings, std::string& error);

// The way this host goes round `settings.addresses`: as written, or with
// spread the route of its host name.
BrokerRoute brokerRoute(const BrokerSettings& settings);

// The password in the first line of `path`. Refuses, saying why in `error`,
// a file that cannot be read or that readCheckedFile refuses as a secret (a
// symbolic link, not a regular file, group or others given access, owned by
// another user, larger than kLargestSecretFile).
bool readBrokerPassword(const std::string& path, std::string& password, std::string& error);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CONFIG_BROKER_SETTINGS_H_
