// kscdp-master-sim: the master server simulator as a program. Prints the
// address it serves on, then serves until SIGINT or SIGTERM.
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "master_sim/MasterSimulator.h"

namespace {

const char kUsage[] =
    "usage: kscdp-master-sim [--host ADDRESS] [--port N] [--job-seconds SECONDS]\n"
    "                        [--first-job-id N] [--unknown-polls N] [--jobs-not-json]\n"
    "                        [--fail-policy NAME=HTTP_STATUS[:DAEMON_STATUS]]...\n"
    "                        [--policy-not-json NAME]... [--policy-too-large NAME]...\n"
    "                        [--threads N] [--keep-alive SECONDS]\n"
    "                        [--tls-cert PEM --tls-key PEM [--client-ca PEM]]\n"
    "  --port 0 (the default) picks a free port.\n";

bool parseNumber(const char* text, long long& value) {
  char* end = nullptr;
  errno = 0;
  value = std::strtoll(text, &end, 10);
  return errno == 0 && end != text && *end == '\0';
}

bool parseSeconds(const char* text, double& value) {
  char* end = nullptr;
  errno = 0;
  value = std::strtod(text, &end);
  return errno == 0 && end != text && *end == '\0' && value >= 0;
}

// NAME=HTTP_STATUS[:DAEMON_STATUS]
bool parsePolicyFailure(const std::string& text, std::string& policy, master_sim::PolicyFaults& faults) {
  const size_t equals = text.rfind('=');
  if (equals == std::string::npos || equals == 0) return false;
  policy = text.substr(0, equals);
  const std::string statuses = text.substr(equals + 1);
  const size_t colon = statuses.find(':');
  long long http = 0;
  long long daemon = 0;
  if (!parseNumber(statuses.substr(0, colon).c_str(), http) || http < 100 || http > 599) return false;
  if (colon != std::string::npos && !parseNumber(statuses.substr(colon + 1).c_str(), daemon)) return false;
  faults.httpStatus = static_cast<int>(http);
  faults.daemonStatus = static_cast<int>(daemon);
  return true;
}

struct PolicySetting {
  std::string policy;
  master_sim::PolicyFaults faults;
};

bool parseOptions(int argc, char** argv, master_sim::MasterSimulatorOptions& options,
                  std::vector<PolicySetting>& policies) {
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--jobs-not-json") {
      options.jobFaults.bodyNotJson = true;
      continue;
    }
    if (name == "--help" || name == "-h") return false;
    if (i + 1 >= argc) {
      std::fprintf(stderr, "kscdp-master-sim: %s is unknown or needs a value\n", name.c_str());
      return false;
    }
    const char* value = argv[++i];
    long long number = 0;
    bool valid = true;
    if (name == "--host") {
      options.host = value;
    } else if (name == "--port") {
      valid = parseNumber(value, number) && number >= 0 && number <= 65535;
      options.port = static_cast<int>(number);
    } else if (name == "--job-seconds") {
      valid = parseSeconds(value, options.jobSeconds);
    } else if (name == "--first-job-id") {
      valid = parseNumber(value, number) && number >= 0;
      options.firstJobId = number;
    } else if (name == "--threads") {
      valid = parseNumber(value, number) && number >= 1 && number <= 10000;
      options.threads = static_cast<int>(number);
    } else if (name == "--keep-alive") {
      valid = parseNumber(value, number) && number >= 1 && number <= 3600;
      options.keepAliveSeconds = static_cast<int>(number);
    } else if (name == "--tls-cert") {
      options.tlsCertFile = value;
    } else if (name == "--tls-key") {
      options.tlsKeyFile = value;
    } else if (name == "--client-ca") {
      options.clientCaFile = value;
    } else if (name == "--unknown-polls") {
      valid = parseNumber(value, number) && number >= 0 && number <= 1000000;
      options.jobFaults.unknownForPolls = static_cast<int>(number);
    } else if (name == "--fail-policy") {
      PolicySetting setting;
      valid = parsePolicyFailure(value, setting.policy, setting.faults);
      policies.push_back(setting);
    } else if (name == "--policy-not-json") {
      PolicySetting setting{value, {}};
      setting.faults.answerNotJson = true;
      policies.push_back(setting);
    } else if (name == "--policy-too-large") {
      PolicySetting setting{value, {}};
      setting.faults.answerTooLarge = true;
      policies.push_back(setting);
    } else {
      std::fprintf(stderr, "kscdp-master-sim: unknown option %s\n", name.c_str());
      return false;
    }
    if (!valid) {
      std::fprintf(stderr, "kscdp-master-sim: bad value for %s: %s\n", name.c_str(), value);
      return false;
    }
  }
  if (options.tlsCertFile.empty() != options.tlsKeyFile.empty() ||
      (options.tlsCertFile.empty() && !options.clientCaFile.empty())) {
    std::fprintf(stderr, "kscdp-master-sim: --tls-cert and --tls-key go together; --client-ca needs both\n");
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  master_sim::MasterSimulatorOptions options;
  std::vector<PolicySetting> policies;
  if (!parseOptions(argc, argv, options, policies)) {
    std::fputs(kUsage, stderr);
    return 2;
  }

  // The signals are taken by sigwait below, never by a handler: blocked here,
  // before the server's threads start, so that every thread inherits the mask.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  master_sim::MasterSimulator simulator(options);
  for (const PolicySetting& setting : policies) simulator.setPolicyFaults(setting.policy, setting.faults);
  if (!simulator.start()) {
    std::fprintf(stderr, "kscdp-master-sim: cannot listen on %s:%d%s\n", options.host.c_str(), options.port,
                 options.tlsCertFile.empty() ? "" : " (or cannot use the TLS certificate, key or client CA)");
    return 1;
  }
  std::printf("kscdp-master-sim: listening on %s\n", simulator.url().c_str());
  std::fflush(stdout);

  int received = 0;
  sigwait(&stopSignals, &received);
  std::printf("kscdp-master-sim: %s, stopping\n", received == SIGINT ? "SIGINT" : "SIGTERM");
  simulator.stop();
  return 0;
}
