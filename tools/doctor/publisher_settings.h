// The alert publisher's own keys of keepstone.conf: its outbox, and the TLS
// and credentials it reaches the broker with. Kept apart so that the
// publisher's own reader can take its place.
#ifndef KSCDP_TOOLS_DOCTOR_PUBLISHER_SETTINGS_H_
#define KSCDP_TOOLS_DOCTOR_PUBLISHER_SETTINGS_H_

#include <string>

#include "platform/standin/config_file.h"

namespace doctor {

extern const char kNoOutbox[];  // "none": alerts wait in memory only

// The "outbox" setting, default /var/lib/kscdp/outbox.db.
std::string outboxPath(const standin::ConfigValues& values);

struct BrokerSecurity {
  bool brokerTls = false;
  std::string brokerCaFile;    // empty: the system's CA bundle
  std::string brokerCertFile;  // with brokerKeyFile: a client certificate
  std::string brokerKeyFile;
  std::string brokerUser;      // empty: no credentials
  std::string brokerPasswordFile;
};

// False, with the reason in `error`, when broker_tls is neither "on" nor
// "off" (nor absent).
bool readBrokerSecurity(const standin::ConfigValues& values, BrokerSecurity& security, std::string& error);

}  // namespace doctor

#endif  // KSCDP_TOOLS_DOCTOR_PUBLISHER_SETTINGS_H_
