#include "publisher_settings.h"

namespace doctor {

const char kNoOutbox[] = "none";

std::string outboxPath(const standin::ConfigValues& values) {
  return standin::setting(values, "outbox", "/var/lib/kscdp/outbox.db");
}

bool readBrokerSecurity(const standin::ConfigValues& values, BrokerSecurity& security, std::string& error) {
  BrokerSecurity read;
  const std::string tls = standin::setting(values, "broker_tls", "off");
  if (tls != "on" && tls != "off") {
    error = "broker_tls is \"" + tls + "\", neither on nor off";
    return false;
  }
  read.brokerTls = tls == "on";
  read.brokerCaFile = standin::setting(values, "broker_ca_file", "");
  read.brokerCertFile = standin::setting(values, "broker_cert_file", "");
  read.brokerKeyFile = standin::setting(values, "broker_key_file", "");
  read.brokerUser = standin::setting(values, "broker_user", "");
  read.brokerPasswordFile = standin::setting(values, "broker_password_file", "");
  security = read;
  return true;
}

}  // namespace doctor
