// What to change when a TLS link failed: which side refused which
// certificate, read from the failure's text and from the certificate this
// host presents, and the configuration keys that set it right.
#ifndef KSCDP_TOOLS_DOCTOR_TLS_ADVICE_H_
#define KSCDP_TOOLS_DOCTOR_TLS_ADVICE_H_

#include <string>

#include "configuration.h"

namespace doctor {

// The keys of one kind of link and the peer at its other end.
struct TlsKeys {
  const char* caKey;    // "ca_file"
  const char* certKey;  // "cert_file"
  const char* keyKey;   // "key_file"
  const char* peer;     // "the master"
};
extern const TlsKeys kMasterTlsKeys;
extern const TlsKeys kBrokerTlsKeys;

// Whole days from now until the PEM certificate `pem` ends, negative once it
// has; false when its end cannot be read.
bool certificateDaysLeft(const std::string& pem, int& days);

// The action for a client certificate that cannot be used as configured:
// unreadable, its key open to others or not its own.
std::string unusableCertificateAction(const Configuration& configuration, const TlsKeys& keys);

// The action for a TLS link to `keys.peer` at `host` that failed with
// `failure` (libcurl's or libmosquitto's words): the host's own certificate
// when it has expired or the peer refused it, the trust when the peer's
// certificate was not verified, the peer's name when its certificate names
// another. Empty when `failure` does not tell a TLS cause.
std::string tlsAction(const std::string& failure, const Configuration& configuration, const TlsKeys& keys,
                      const std::string& host);

}  // namespace doctor

#endif  // KSCDP_TOOLS_DOCTOR_TLS_ADVICE_H_
