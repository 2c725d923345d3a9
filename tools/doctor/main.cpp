// kscdp-doctor: checks, link by link, whether this host can reach its
// Keepstone master as libkscdp.so does, and says what to do about each broken
// link. Exit status 0 when nothing failed, 1 when something did, 2 for bad
// usage.
#include <mosquitto.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "checks.h"
#include "report.h"

namespace {

const int kNothingFailed = 0;
const int kSomethingFailed = 1;
const int kBadUsage = 2;

const char kUsage[] =
    "usage: kscdp-doctor [--json] [--send-test-alert]\n"
    "Checks the configuration file (KEEPSTONE_CONF), the master's name, its REST jobs\n"
    "interface, the request daemon, the broker, the log file (KSU_LOG_FILE), the\n"
    "alert outbox, the client certificates, the links in the clear and the metrics\n"
    "file. Never starts a backup.\n"
    "  --json             print the results as one JSON document\n"
    "  --send-test-alert  publish one test alert to the broker\n";

struct Options {
  bool json = false;
  bool sendTestAlert = false;
};

std::vector<doctor::CheckResult> runChecks(const Options& options) {
  const doctor::Configuration configuration = doctor::readConfiguration();
  std::vector<doctor::CheckResult> results;
  results.push_back(doctor::checkConfiguration(configuration));
  bool masterResolves = false;
  results.push_back(doctor::checkMasterName(configuration, masterResolves));
  results.push_back(doctor::checkRestInterface(configuration, masterResolves));
  results.push_back(doctor::checkRequestDaemon(configuration, masterResolves));
  for (doctor::CheckResult& result : doctor::checkBroker(configuration, masterResolves, options.sendTestAlert)) {
    results.push_back(std::move(result));
  }
  results.push_back(doctor::checkLogFile());
  results.push_back(doctor::checkOutbox(configuration));
  results.push_back(doctor::checkHostCertificate(configuration));
  results.push_back(doctor::checkBrokerCertificate(configuration));
  results.push_back(doctor::checkPlaintextLinks(configuration));
  results.push_back(doctor::checkMetricsFile(configuration));
  return results;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--json") == 0) {
      options.json = true;
    } else if (std::strcmp(argv[i], "--send-test-alert") == 0) {
      options.sendTestAlert = true;
    } else if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::fputs(kUsage, stdout);
      return kNothingFailed;
    } else {
      std::fprintf(stderr, "kscdp-doctor: unknown argument \"%s\"\n%s", argv[i], kUsage);
      return kBadUsage;
    }
  }
  if (mosquitto_lib_init() != MOSQ_ERR_SUCCESS) {
    std::fputs("kscdp-doctor: libmosquitto could not start; free some memory and run again\n", stderr);
    return kSomethingFailed;
  }
  const std::vector<doctor::CheckResult> results = runChecks(options);
  mosquitto_lib_cleanup();
  if (options.json) {
    if (!doctor::printJson(results, stdout)) {
      std::fputs("kscdp-doctor: the JSON report could not be made; run without --json\n", stderr);
      return kSomethingFailed;
    }
  } else {
    doctor::printText(results, stdout);
  }
  return doctor::anyFailed(results) ? kSomethingFailed : kNothingFailed;
}
