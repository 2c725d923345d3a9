#include "configuration.h"

#include <cerrno>

#include "nearest_key.h"

namespace doctor {
namespace {

const char kId[] = "config";
const char kTitle[] = "configuration file";

// Adds the lines whose key the library does not know to `result`: they make
// an ok file a warning, and each is named with its line and, when one is
// close, the key it was probably meant to be.
CheckResult withUnknownKeys(const Configuration& configuration, CheckResult result) {
  const std::vector<standin::UnknownKey>& unknown = configuration.values.unknownKeys;
  if (unknown.empty()) return result;
  std::string found;
  std::string lines;
  for (const standin::UnknownKey& entry : unknown) {
    const std::string nearest = nearestKnownKey(entry.key);
    found += "; unknown key \"" + entry.key + "\" on line " + std::to_string(entry.line);
    if (!nearest.empty()) found += " (did you mean \"" + nearest + "\"?)";
    lines += (lines.empty() ? "" : ", ") + std::to_string(entry.line);
  }
  result.detail += found + (unknown.size() == 1 ? ": the library ignores it" : ": the library ignores them");
  const std::string action =
      "correct or remove line" + std::string(unknown.size() == 1 ? " " : "s ") + lines + " of " + configuration.path;
  result.action += (result.action.empty() ? "" : "; ") + action;
  if (result.status == Status::kOk) result.status = Status::kWarning;
  return result;
}

// The check of a file that was read and parsed.
CheckResult checkReadConfiguration(const Configuration& configuration) {
  const std::string& path = configuration.path;
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
  return withUnknownKeys(configuration, checkReadConfiguration(configuration));
}

}  // namespace doctor
