#include "configuration.h"

#include <cerrno>

namespace doctor {
namespace {

const char kId[] = "config";
const char kTitle[] = "configuration file";

}  // namespace

std::string Configuration::master() const { return values.servers.empty() ? std::string() : values.servers[0]; }

bool Configuration::namesMaster() const { return readResult == 0 && !master().empty(); }

Configuration readConfiguration() {
  Configuration configuration;
  static_cast<standin::ConfigSnapshot&>(configuration) = *standin::currentConfig();
  return configuration;
}

CheckResult checkConfiguration(const Configuration& configuration) {
  const std::string& path = configuration.path;
  if (configuration.readResult == EINVAL && configuration.badLine > 0) {
    return failedResult(kId, kTitle, configuration.problem() + "; the library ignores the whole file",
                        "correct or remove line " + std::to_string(configuration.badLine) + " of " + path);
  }
  if (configuration.readResult != 0) {
    return failedResult(kId, kTitle, configuration.problem(),
                        "create " + path +
                            " readable by the engine's user with \"server = <master host>\" and "
                            "\"host_name = <this host>\", or set KEEPSTONE_CONF to the file the engine uses");
  }
  if (configuration.master().empty()) {
    return failedResult(kId, kTitle, path + " names no master server",
                        "add \"server = <master host>\" to " + path + " as its first server line");
  }
  const std::string found = path + ": master " + configuration.master();
  if (!configuration.values.hasHostName || configuration.values.hostName.empty()) {
    return warningResult(kId, kTitle, found + ", no host_name: alerts name no server",
                         "add \"host_name = <this host's name in the backup domain>\" to " + path);
  }
  return okResult(kId, kTitle, found + ", host_name " + configuration.values.hostName);
}

}  // namespace doctor
