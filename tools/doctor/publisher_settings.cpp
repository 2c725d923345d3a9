#include "publisher_settings.h"

namespace doctor {

const char kNoOutbox[] = "none";

bool readPublisherSettings(const standin::ConfigValues& values, PublisherSettings& settings, std::string& error) {
  PublisherSettings read;
  read.outbox = standin::setting(values, "outbox", "/var/lib/kscdp/outbox.db");
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
  settings = read;
  return true;
}

}  // namespace doctor
