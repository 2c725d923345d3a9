// The doctor's checks, in the order it runs them. Each network check ends
// within its own few seconds, so that a run ends within about 10 s even when
// no host answers. None of them changes anything on the master: no backup is
// ever started, and only --send-test-alert publishes.
#ifndef KSCDP_TOOLS_DOCTOR_CHECKS_H_
#define KSCDP_TOOLS_DOCTOR_CHECKS_H_

#include <string>
#include <vector>

#include "check_result.h"
#include "configuration.h"
#include "url_parts.h"

namespace doctor {

// Whether the master's name resolves (within 2 s); `resolves` says so for the
// checks that follow.
CheckResult checkMasterName(const Configuration& configuration, bool& resolves);

// A GET of a job that cannot exist from the REST jobs interface, expecting
// the master's JSON answer.
CheckResult checkRestInterface(const Configuration& configuration, bool masterResolves);

// Whether the request daemon's address accepts a TCP connection; nothing is
// sent over it. Over https, a TLS handshake presenting the host's certificate
// follows, and a GET of the daemon's root, which starts nothing.
CheckResult checkRequestDaemon(const Configuration& configuration, bool masterResolves);

// An MQTT connection to the broker with the configured TLS and credentials,
// and with `sendTestAlert` one test event published over it: one result, or
// two with the test alert.
std::vector<CheckResult> checkBroker(const Configuration& configuration, bool masterResolves, bool sendTestAlert);

// The host's certificate (cert_file, key_file), and the broker's client
// certificate (broker_cert_file, broker_key_file): readable, the key private
// and the certificate's own, a warning within 30 days of its end, a failure
// after it.
CheckResult checkHostCertificate(const Configuration& configuration);
CheckResult checkBrokerCertificate(const Configuration& configuration);

// A warning naming every link in use that is not TLS.
CheckResult checkPlaintextLinks(const Configuration& configuration);

// Whether the library can append to KSU_LOG_FILE.
CheckResult checkLogFile();
// Whether the alert publisher can write its outbox.
CheckResult checkOutbox(const Configuration& configuration);

// The metrics file (metrics_file): its age against metrics_interval, a
// warning when it is older than three intervals while an engine holds the
// outbox.
CheckResult checkMetricsFile(const Configuration& configuration);

// True when `host` is the master's name and that did not resolve: a check
// of it would only repeat that failure.
bool isUnresolvedMaster(const std::string& host, const Configuration& configuration, bool masterResolves);

// Where the check `id` (`title`) of a service at `url` connects: true with
// `where` set, or false with the check's `verdict`: failed with `advice` when
// `url` is not an http or https URL, skipped when it names the master and
// that did not resolve.
bool serviceAddress(const std::string& id, const std::string& title, const std::string& url, const std::string& advice,
                    const Configuration& configuration, bool masterResolves, UrlParts& where, CheckResult& verdict);

// True when the REST interface, the request daemon or a broker is reached by
// the master's name: a default rest_url or ksqd_url, or an address that names
// it. Only then can the name's failure to resolve fail this host.
bool linksUseMastersName(const Configuration& configuration);
extern const char kUnresolvedMasterReason[];
extern const char kNoMasterReason[];

}  // namespace doctor

#endif  // KSCDP_TOOLS_DOCTOR_CHECKS_H_
