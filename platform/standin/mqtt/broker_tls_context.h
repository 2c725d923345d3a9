// The TLS context of one broker connection, made from the bytes the library
// read and checked, so that no file is opened again by path once checked: a
// file swapped after the check is never used.
#ifndef KSCDP_PLATFORM_STANDIN_MQTT_BROKER_TLS_CONTEXT_H_
#define KSCDP_PLATFORM_STANDIN_MQTT_BROKER_TLS_CONTEXT_H_

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "platform/standin/config/broker_settings.h"

namespace standin {

struct SslContextRelease {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using SslContext = std::unique_ptr<SSL_CTX, SslContextRelease>;

// A client context for the broker at `host`: TLS 1.2 at least; the peer
// verified against the certificates of `settings.caFile` (else the system's
// CA directory) and its certificate's names against `host` (an IP address
// against its IP addresses); the client certificate chain and key of
// `settings` presented when set, read once through loadClientIdentity(). Null,
// with one sentence in `error` naming the file and what to do, when a file
// cannot be read, is refused or holds no certificate. Thread-safe.
SslContext makeBrokerTlsContext(const BrokerSettings& settings, const std::string& host, std::string& error);

// Why the broker's certificate was refused in the last handshake this thread
// ran through a context of makeBrokerTlsContext(), as OpenSSL words it
// ("hostname mismatch"); empty when it was not. Making a context on this
// thread forgets it: a client's handshake runs on the thread that made it.
std::string refusedBrokerCertificate();

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_MQTT_BROKER_TLS_CONTEXT_H_
