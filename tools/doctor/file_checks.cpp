// The files the library writes: its log and the alert publisher's outbox.
// Nothing is created or written: an existing file is opened for writing and
// closed, a missing one needs a directory the user can create it in, or, for
// the outbox, which the engine makes with its directories, a directory above
// it that the user can make them in.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "checks.h"
#include "directory_of.h"
#include "platform/standin/config/outbox_settings.h"
#include "platform/standin/outbox/backlog.h"

namespace doctor {
namespace {

// What writableProblem() returns for a path that holds something other than
// a regular file (a FIFO, a device, a directory): the library refuses it.
const int kNotRegularFile = -1;

std::string problemText(int problem) {
  return problem == kNotRegularFile ? "not a regular file, which the library refuses" : std::strerror(problem);
}

// 0 when this user could write `path` with `flags` (creating it when
// missing), else the errno that stops it or kNotRegularFile; `inDirectory`
// tells whether the problem is the file's directory.
int writableProblem(const std::string& path, int flags, bool& inDirectory) {
  inDirectory = false;
  // As the library opens them: never through a symbolic link, never waiting
  // on a FIFO, judged on the descriptor.
  const int fd = open(path.c_str(), flags | O_NOCTTY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd >= 0) {
    struct stat status {};
    const bool regular = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    close(fd);
    return regular ? 0 : kNotRegularFile;
  }
  if (errno == ENXIO || errno == EISDIR) return kNotRegularFile;  // a FIFO without a reader, a device, a directory
  if (errno != ENOENT) return errno;
  inDirectory = true;
  return access(directoryOf(path).c_str(), W_OK | X_OK) == 0 ? 0 : errno;
}

// 0 when this user could make the missing directory `directory` and every
// missing one above it, else the errno that stops it; `existing` is then the
// directory where making them stops.
int uncreatableProblem(const std::string& directory, std::string& existing) {
  existing = directory;
  struct stat status {};
  while (stat(existing.c_str(), &status) != 0) {
    const int problem = errno;
    const std::string above = directoryOf(existing);
    if (problem != ENOENT || above == existing) return problem;
    existing = above;
  }
  if (!S_ISDIR(status.st_mode)) return ENOTDIR;
  return access(existing.c_str(), W_OK | X_OK) == 0 ? 0 : errno;
}

// The outbox's line once it can be written: what waits there.
CheckResult backlogResult(const char* id, const char* title, const std::string& outbox) {
  standin::OutboxBacklog backlog;
  std::string error;
  if (!standin::readOutboxBacklog(outbox, backlog, error)) {
    return warningResult(id, title, outbox + " can be written but not read: " + error,
                         "look at it with the sqlite3 shell; the engine sets a damaged outbox aside by itself");
  }
  std::string detail = outbox + " can be written; ";
  detail += backlog.waiting == 0 ? "no alert waits" : std::to_string(backlog.waiting) + " alerts wait";
  if (backlog.oldestSeconds >= 0) detail += ", the oldest raised " + std::to_string(backlog.oldestSeconds) + " s ago";
  detail += "; " + std::to_string(backlog.bytesOnDisk) + " bytes on disk";
  CheckResult result = okResult(id, title, detail);
  result.figures = {{"waiting", backlog.waiting}, {"bytesOnDisk", backlog.bytesOnDisk}};
  if (backlog.oldestSeconds >= 0) result.figures.emplace_back("oldestAgeSeconds", backlog.oldestSeconds);
  return result;
}

}  // namespace

CheckResult checkLogFile() {
  const char kId[] = "log";
  const char kTitle[] = "log file";
  const char* variable = secure_getenv("KSU_LOG_FILE");
  if (variable == nullptr || *variable == '\0') {
    return okResult(kId, kTitle, "KSU_LOG_FILE is not set here: the library logs to the engine's standard error");
  }
  const std::string path = variable;
  bool inDirectory = false;
  const int problem = writableProblem(path, O_WRONLY | O_APPEND, inDirectory);
  if (problem == 0) return okResult(kId, kTitle, path + (inDirectory ? " can be created" : " can be appended to"));
  const std::string where = inDirectory ? "directory " + directoryOf(path) : path;
  return failedResult(kId, kTitle, where + ": " + problemText(problem) + "; the library would log to standard error",
                      "let the engine's user write " + where + ", or point KSU_LOG_FILE elsewhere");
}

CheckResult checkOutbox(const Configuration& configuration) {
  const char kId[] = "outbox";
  const char kTitle[] = "alert outbox";
  if (configuration.readResult != 0) return skippedResult(kId, kTitle, "needs a readable configuration file");
  std::string outbox;
  std::string error;
  if (!standin::readOutboxPath(outbox, error)) {
    return warningResult(kId, kTitle, error,
                         "set outbox to a file path, or to none to keep waiting alerts in memory only");
  }
  if (outbox.empty()) {
    return okResult(kId, kTitle, "outbox = none: waiting alerts are kept in memory only");
  }
  const std::string directory = directoryOf(outbox);
  // SQLite writes its journal beside the file, so the directory must be writable too.
  bool inDirectory = false;
  int problem = writableProblem(outbox, O_RDWR, inDirectory);
  if (problem == 0 && !inDirectory && access(directory.c_str(), W_OK | X_OK) != 0) {
    problem = errno;
    inDirectory = true;
  }
  if (problem == 0 && inDirectory) return okResult(kId, kTitle, outbox + " can be created; no alert waits");
  if (problem == 0) return backlogResult(kId, kTitle, outbox);
  std::string where = inDirectory ? "directory " + directory : outbox;
  if (problem == ENOENT && inDirectory) {
    // The engine makes the missing directories with its first alert.
    std::string existing;
    problem = uncreatableProblem(directory, existing);
    if (problem == 0) {
      return okResult(kId, kTitle,
                      outbox + " will be created, with its directory " + directory +
                          ", by the engine's first alert; no alert waits");
    }
    where += " does not exist and cannot be made: " + existing;
  }
  return warningResult(
      kId, kTitle,
      where + ": " + problemText(problem) + "; alerts would wait in memory only and be lost with the engine's process",
      "create " + directory + " writable by the engine's user, or set outbox in " + configuration.path);
}

}  // namespace doctor
