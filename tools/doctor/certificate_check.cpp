// A client certificate as the library would present it: readable, its key
// private and its own, and how long it stays valid. The handshakes that
// present it are the link checks' (rest, daemon, broker).
#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>

#include "checks.h"
#include "platform/standin/config/client_identity.h"

namespace doctor {
namespace {

const int kWarningDays = 30;

struct X509Release {
  void operator()(X509* certificate) const { X509_free(certificate); }
};

// Whole days from now until `certificate` expires (negative once it has);
// false when its end cannot be read.
bool daysLeft(const std::string& pem, int& days) {
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

CheckResult checkCertificate(const Configuration& configuration, const char* id, const char* title, const char* certKey,
                             const char* keyKey) {
  if (!configuration.namesMaster()) return skippedResult(id, title, kNoMasterReason);
  const std::string certFile = standin::setting(configuration.values, certKey, "");
  const std::string keyFile = standin::setting(configuration.values, keyKey, "");
  if (certFile.empty() && keyFile.empty()) {
    return okResult(id, title, std::string("none configured (") + certKey + ", " + keyKey + ")");
  }
  const std::string fix = std::string("set ") + certKey + " and " + keyKey + " in " + configuration.path +
                          " to the host's certificate and its key (chmod 600)";
  standin::ClientIdentity identity;
  std::string error;
  if (!standin::loadClientIdentity(certFile, keyFile, certKey, keyKey, identity, error)) {
    return failedResult(id, title, error, fix);
  }
  int days = 0;
  if (!daysLeft(identity.certificate, days)) {
    return failedResult(id, title, certFile + ": its end of validity cannot be read", fix);
  }
  const std::string renew = "have the domain's CA issue " + certFile + " anew, before it expires";
  CheckResult result;
  if (days < 0) {
    result = failedResult(id, title, certFile + " has expired: the master refuses it", renew);
  } else if (days < kWarningDays) {
    result = warningResult(id, title, certFile + " expires in " + std::to_string(days) + " days", renew);
  } else {
    result = okResult(id, title, certFile + " matches its key and is valid for " + std::to_string(days) + " more days");
  }
  result.figures.emplace_back("daysLeft", days);
  return result;
}

}  // namespace

CheckResult checkHostCertificate(const Configuration& configuration) {
  return checkCertificate(configuration, "certificate", "host's certificate", "cert_file", "key_file");
}

CheckResult checkBrokerCertificate(const Configuration& configuration) {
  return checkCertificate(configuration, "broker-certificate", "broker client certificate", "broker_cert_file",
                          "broker_key_file");
}

}  // namespace doctor
