// Log records, one a line:
//   <UTC YYYY-MM-DDTHH:MM:SS.mmmZ> <pid> <level> <function>: <message>
// appended to the file named by KSU_LOG_FILE, else stderr. The file is
// reopened when it was moved or removed (logrotate's move-and-create), which
// is noticed by comparing the open file with the path at most once a second.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "platform/ksu_log.h"
#include "platform/standin/files/log_sink.h"
#include "platform/standin/files/private_file.h"
#include "port/fork_hooks.h"
#include "port/mutex.h"
#include "port/no_destructor.h"

namespace {

const time_t kRotationCheckSeconds = 1;
const mode_t kLogFileMode = 0640;

// The log file as it was opened.
struct LogSink {
  bool opened = false;   // the first record has looked at KSU_LOG_FILE
  std::string path;      // empty: records go to stderr
  FILE* file = nullptr;  // owned unless it is stderr; never closed while a record is written
  dev_t device = 0;      // identity of `file`, to tell whether `path` still names it
  ino_t inode = 0;
  time_t nextCheck = 0;  // CLOCK_MONOTONIC_COARSE seconds
};

// Never destroyed: the publisher's thread may log while the process exits.
struct LogState {
  port::Mutex mutex;
  LogSink sink GUARDED_BY(mutex);
};
port::NoDestructor<LogState> g_state;

time_t monotonicSeconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec;
}

// Opens `path` for appending and notes its identity; false, with why in
// `error`, leaves `sink` as it was. Never through a symbolic link, never a
// FIFO or device (a write would block the engine's calls), never a file of
// another user or a second name of another file, never inherited by a
// program the engine starts; readable by the group at most.
bool openLogFile(LogSink& sink, std::string& error) {
  const int fd = standin::openOwnFileAt(AT_FDCWD, sink.path, sink.path, O_WRONLY | O_APPEND | O_CREAT, kLogFileMode,
                                        "the log file", error);
  if (fd < 0) return false;
  struct stat status {};
  FILE* file = fstat(fd, &status) == 0 ? fdopen(fd, "a") : nullptr;
  if (file == nullptr) {
    error = "cannot open the log file " + sink.path + ": " + std::strerror(errno);
    close(fd);
    return false;
  }
  if ((status.st_mode & ~kLogFileMode & 0777) != 0) fchmod(fd, status.st_mode & kLogFileMode);
  if (sink.file != nullptr && sink.file != stderr) std::fclose(sink.file);
  sink.file = file;
  sink.device = status.st_dev;
  sink.inode = status.st_ino;
  return true;
}

// The stream for the next record. A file that cannot be reopened keeps
// receiving records (they are not lost, only rotated away) until it can.
FILE* sink(LogState& state) REQUIRES(state.mutex) {
  LogSink& log = state.sink;
  if (!log.opened) {
    log.opened = true;
    const char* path = secure_getenv("KSU_LOG_FILE");
    if (path != nullptr && *path != '\0') log.path = path;
    std::string error;
    if (!log.path.empty() && !openLogFile(log, error)) {
      std::fprintf(stderr, "ksu_logmsg_str: %s; records go to stderr\n", error.c_str());
      log.path.clear();
    }
    if (log.path.empty()) log.file = stderr;
    log.nextCheck = monotonicSeconds() + kRotationCheckSeconds;
    return log.file;
  }
  if (log.path.empty()) return log.file;
  const time_t now = monotonicSeconds();
  if (now < log.nextCheck) return log.file;
  log.nextCheck = now + kRotationCheckSeconds;
  struct stat status {};
  const bool samePath =
      stat(log.path.c_str(), &status) == 0 && status.st_dev == log.device && status.st_ino == log.inode;
  std::string ignored;  // the file open keeps the records meanwhile
  if (!samePath) openLogFile(log, ignored);
  return log.file;
}

// This process's id, asked of the kernel once and again in a forked child.
std::atomic<pid_t> g_pid{0};

void lockForFork() NO_THREAD_SAFETY_ANALYSIS { g_state->mutex.lock(); }
void unlockAfterFork() NO_THREAD_SAFETY_ANALYSIS { g_state->mutex.unlock(); }
// A child asks for its own id.
void unlockInChild() NO_THREAD_SAFETY_ANALYSIS {
  g_pid.store(0, std::memory_order_relaxed);
  g_state->mutex.unlock();
}

pid_t processId() {
  pid_t pid = g_pid.load(std::memory_order_relaxed);
  if (pid == 0) {
    pid = getpid();
    g_pid.store(pid, std::memory_order_relaxed);
  }
  return pid;
}

// Backslash and control bytes are escaped so that a record stays one line;
// the runs of bytes between them are copied whole.
void appendEscaped(std::string& out, const std::string& message) {
  static const char kHex[] = "0123456789abcdef";
  size_t copied = 0;
  for (size_t i = 0; i < message.size(); ++i) {
    const auto byte = static_cast<unsigned char>(message[i]);
    if (byte >= 0x20 && byte != '\\') continue;
    out.append(message, copied, i - copied);
    copied = i + 1;
    switch (byte) {
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        out += "\\x";
        out += kHex[byte >> 4];
        out += kHex[byte & 0xf];
    }
  }
  out.append(message, copied, std::string::npos);
}

// Appends now as "YYYY-MM-DDTHH:MM:SS.mmmZ" (UTC). Each thread formats the
// part up to the seconds once a second, not once a record.
void appendTimestamp(std::string& out) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  thread_local time_t formattedSecond = -1;
  thread_local char upToSeconds[64] = "";
  if (now.tv_sec != formattedSecond) {
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    std::snprintf(upToSeconds, sizeof upToSeconds, "%04d-%02d-%02dT%02d:%02d:%02d", utc.tm_year + 1900, utc.tm_mon + 1,
                  utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
    formattedSecond = now.tv_sec;
  }
  const long milliseconds = now.tv_nsec / 1000000;
  out += upToSeconds;
  out += '.';
  out += static_cast<char>('0' + milliseconds / 100);
  out += static_cast<char>('0' + milliseconds / 10 % 10);
  out += static_cast<char>('0' + milliseconds % 10);
  out += 'Z';
}

}  // namespace

namespace standin {

const port::ForkHooks kLogForkHooks = {&lockForFork, &unlockAfterFork, &unlockInChild};

void releaseLogSink() {
  port::MutexLock lock(g_state->mutex);
  LogSink& sink = g_state->sink;
  if (sink.file != nullptr && sink.file != stderr) std::fclose(sink.file);
  sink.file = nullptr;
  std::string().swap(sink.path);
  sink.opened = false;
}

}  // namespace standin

int ksu_logmsg_str(int level, const std::string& function, const std::string& message) {
  std::string line;
  line.reserve(64 + function.size() + message.size());
  appendTimestamp(line);
  line += ' ';
  line += std::to_string(processId());
  line += ' ';
  line += std::to_string(level);
  line += ' ';
  line += function;
  line += ": ";
  appendEscaped(line, message);
  line += '\n';
  LogState& state = *g_state;
  port::MutexLock lock(state.mutex);
  FILE* out = sink(state);
  std::fwrite(line.data(), 1, line.size(), out);
  std::fflush(out);
  return 0;
}
