// The metrics file: which file, how old, and whether an engine that runs
// keeps it fresh. Whether an engine runs is read from /proc/locks (the flock
// an engine holds on the outbox's lock file), so that the doctor never takes
// a lock an engine might want at that moment.
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

#include "checks.h"
#include "directory_of.h"
#include "platform/standin/config/metrics_settings.h"
#include "platform/standin/config/outbox_settings.h"

namespace doctor {
namespace {

// True when some process holds an flock on the outbox's lock file.
bool engineHoldsOutbox() {
  std::string outbox;
  std::string error;
  if (!standin::readOutboxPath(outbox, error) || outbox.empty()) return false;
  struct stat lock;
  if (stat((outbox + ".lock").c_str(), &lock) != 0) return false;
  char wanted[64];
  std::snprintf(wanted, sizeof wanted, " %02x:%02x:%" PRIu64 " ", major(lock.st_dev), minor(lock.st_dev),
                static_cast<uint64_t>(lock.st_ino));
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    if (line.find(" FLOCK ") != std::string::npos && line.find(wanted) != std::string::npos) return true;
  }
  return false;
}

}  // namespace

CheckResult checkMetricsFile(const Configuration& configuration) {
  const char kId[] = "metrics";
  const char kTitle[] = "metrics file";
  if (configuration.readResult != 0) return skippedResult(kId, kTitle, "needs a readable configuration file");
  const standin::MetricsSettings settings = standin::metricsSettings(configuration);
  if (!settings.problem.empty()) {
    return warningResult(kId, kTitle, settings.problem, "set metrics_interval to whole seconds, e.g. 10");
  }
  if (settings.path.empty()) return okResult(kId, kTitle, "metrics_file is not set: no metrics file is written");
  // Each rewrite is a new file in the directory, renamed over the last.
  const std::string directory = directoryOf(settings.path);
  if (access(directory.c_str(), W_OK | X_OK) != 0) {
    return warningResult(
        kId, kTitle,
        "the engine cannot write " + settings.path + ": its directory " + directory + ": " + std::strerror(errno),
        "make " + directory + " a directory that the engine's user can write, or set metrics_file in " +
            configuration.path + " to a file in one");
  }
  const long long interval = settings.interval.count();
  const bool engineRuns = engineHoldsOutbox();
  struct stat status;
  if (stat(settings.path.c_str(), &status) != 0) {
    const std::string detail = settings.path + ": " + std::strerror(errno);
    if (!engineRuns) return okResult(kId, kTitle, detail + "; the engine writes it while its alert thread runs");
    return warningResult(kId, kTitle, detail + " while an engine holds the outbox",
                         "look in the engine's log for metrics_file lines, and let the engine's user write the "
                         "file's directory");
  }
  const long long age = static_cast<long long>(std::time(nullptr) - status.st_mtime);
  const bool fresh = age <= 3 * interval;
  const std::string detail =
      settings.path + " was written " + std::to_string(age) + " s ago (every " + std::to_string(interval) + " s)";
  CheckResult result;
  if (fresh) {
    result = okResult(kId, kTitle, detail + ": fresh");
  } else if (!engineRuns) {
    result = okResult(kId, kTitle, detail + ": no engine runs now, its counts are those of the last run");
  } else {
    result = warningResult(kId, kTitle, detail + ": older than three intervals while an engine holds the outbox",
                           "look in the engine's log for metrics_file lines; a stopped alert thread no longer "
                           "writes it");
  }
  result.figures = {{"ageSeconds", age}, {"intervalSeconds", interval}};
  result.findings = {{"fresh", fresh}};
  return result;
}

}  // namespace doctor
