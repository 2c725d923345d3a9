#include "tls_advice.h"

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <initializer_list>
#include <memory>

#include "platform/standin/config/client_identity.h"

namespace doctor {

const TlsKeys kMasterTlsKeys = {"ca_file", "cert_file", "key_file", "the master"};
const TlsKeys kBrokerTlsKeys = {"broker_ca_file", "broker_cert_file", "broker_key_file", "the broker"};

namespace {

struct X509Release {
  void operator()(X509* certificate) const { X509_free(certificate); }
};

bool mentionsAny(const std::string& text, std::initializer_list<const char*> parts) {
  for (const char* part : parts) {
    if (text.find(part) != std::string::npos) return true;
  }
  return false;
}

// OpenSSL's words for an alert the peer sent about the certificate this host
// presented, or about its lack of one.
bool peerRefusedOurCertificate(const std::string& failure) {
  return mentionsAny(failure, {"alert certificate expired", "alert bad certificate", "alert unknown ca",
                               "alert certificate unknown", "alert certificate required", "alert certificate revoked",
                               "alert unsupported certificate", "alert access denied"});
}

// OpenSSL's and libcurl's words for a peer certificate that this host could
// not verify, and for one that names another host.
bool peerNotTrusted(const std::string& failure) {
  return mentionsAny(failure, {"SSL certificate problem", "certificate verify failed", "unable to get local issuer",
                               "self-signed certificate", "self signed certificate"});
}
// What is left when the peer hung up during or right after the handshake
// without saying why (TLS 1.3 reports a refused certificate only there).
bool peerEndedConnection(const std::string& failure) {
  return mentionsAny(failure, {"ended the TLS connection", "getpeername() failed", "SSL_write() error",
                               "SSL_ERROR_SYSCALL", "unexpected eof", "Connection reset", "connection was lost",
                               "Protocol error", "closed the connection"});
}
bool peerNamesAnotherHost(const std::string& failure) {
  return mentionsAny(
      failure, {"does not match target host", "no alternative certificate subject name", "certificate subject name"});
}

}  // namespace

bool certificateDaysLeft(const std::string& pem, int& days) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  const std::unique_ptr<X509, X509Release> certificate(bio ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)
                                                           : nullptr);
  BIO_free(bio);
  int seconds = 0;
  if (!certificate || ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate.get())) != 1) {
    return false;
  }
  if (days == 0 && seconds < 0) days = -1;
  return true;
}

std::string unusableCertificateAction(const Configuration& configuration, const TlsKeys& keys) {
  return std::string("set ") + keys.certKey + " and " + keys.keyKey + " in " + configuration.path +
         " to the host's certificate and its own key, the key readable by this user only (chmod 600)";
}

std::string tlsAction(const std::string& failure, const Configuration& configuration, const TlsKeys& keys,
                      const std::string& host) {
  const std::string certFile = standin::setting(configuration.values, keys.certKey, "");
  const std::string keyFile = standin::setting(configuration.values, keys.keyKey, "");
  const std::string newCertificate = std::string("set ") + keys.certKey + " and " + keys.keyKey + " in " +
                                     configuration.path + " to a current certificate and its key that " + keys.peer +
                                     "'s CA signed";
  standin::ClientIdentity identity;
  std::string unused;
  int days = 0;
  if (!certFile.empty() &&
      standin::loadClientIdentity(certFile, keyFile, keys.certKey, keys.keyKey, identity, unused) &&
      certificateDaysLeft(identity.certificate, days) && days < 0) {
    return std::string(keys.certKey) + " " + certFile + " has expired and " + keys.peer +
           " refuses it: " + newCertificate;
  }
  if (peerRefusedOurCertificate(failure)) {
    if (certFile.empty()) {
      return std::string(keys.peer) + " requires a client certificate: " + newCertificate;
    }
    return std::string(keys.peer) + " refused " + certFile + ": " + newCertificate;
  }
  if (certFile.empty() && peerEndedConnection(failure)) {
    return std::string(keys.peer) + " ended the TLS connection and no client certificate is set: if it requires one, " +
           newCertificate;
  }
  if (peerEndedConnection(failure)) {
    return std::string(keys.peer) + " ended the TLS connection: if it refused " + certFile + ", " + newCertificate;
  }
  if (peerNamesAnotherHost(failure)) {
    return std::string("have ") + keys.peer + "'s certificate name " + host +
           ", or reach it by a name its certificate holds";
  }
  if (peerNotTrusted(failure)) {
    return std::string("set ") + keys.caKey + " in " + configuration.path + " to the CA bundle that signed " +
           keys.peer + "'s certificate";
  }
  return "";
}

}  // namespace doctor
