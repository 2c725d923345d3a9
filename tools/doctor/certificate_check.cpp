// A client certificate as the library would present it: readable, its key
// private and its own, and how long it stays valid. The handshakes that
// present it are the link checks' (rest, daemon, broker).
#include "checks.h"
#include "platform/standin/config/client_identity.h"
#include "tls_advice.h"

namespace doctor {
namespace {

const int kWarningDays = 30;

CheckResult checkCertificate(const Configuration& configuration, const char* id, const char* title,
                             const TlsKeys& keys) {
  const char* certKey = keys.certKey;
  const char* keyKey = keys.keyKey;
  if (!configuration.namesMaster()) return skippedResult(id, title, kNoMasterReason);
  const std::string certFile = standin::setting(configuration.values, certKey, "");
  const std::string keyFile = standin::setting(configuration.values, keyKey, "");
  if (certFile.empty() && keyFile.empty()) {
    return okResult(id, title, std::string("none configured (") + certKey + ", " + keyKey + ")");
  }
  const std::string fix = unusableCertificateAction(configuration, keys);
  standin::ClientIdentity identity;
  std::string error;
  if (!standin::loadClientIdentity(certFile, keyFile, certKey, keyKey, identity, error)) {
    return failedResult(id, title, error, fix);
  }
  int days = 0;
  if (!certificateDaysLeft(identity.certificate, days)) {
    return failedResult(id, title, certFile + ": its end of validity cannot be read", fix);
  }
  CheckResult result;
  if (days < 0) {
    result =
        failedResult(id, title, certFile + " has expired: " + keys.peer + " refuses it",
                     "have the domain's CA issue a new certificate for this host, and set " + std::string(certKey) +
                         " and " + keyKey + " in " + configuration.path + " to it and its key");
  } else if (days < kWarningDays) {
    result = warningResult(id, title, certFile + " expires in " + std::to_string(days) + " days",
                           "have the domain's CA issue " + certFile + " anew, before it expires");
  } else {
    result = okResult(id, title, certFile + " matches its key and is valid for " + std::to_string(days) + " more days");
  }
  result.figures.emplace_back("daysLeft", days);
  return result;
}

}  // namespace

CheckResult checkHostCertificate(const Configuration& configuration) {
  return checkCertificate(configuration, "certificate", "host's certificate", kMasterTlsKeys);
}

CheckResult checkBrokerCertificate(const Configuration& configuration) {
  return checkCertificate(configuration, "broker-certificate", "broker client certificate", kBrokerTlsKeys);
}

}  // namespace doctor
