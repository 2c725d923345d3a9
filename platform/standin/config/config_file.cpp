#include "platform/standin/config/config_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "port/fork_hooks.h"
#include "port/mutex.h"
#include "port/no_destructor.h"

namespace standin {
namespace {

const char kBlanks[] = " \t\r";
// A configuration is a few dozen lines; a larger file is no configuration,
// and reading it whole would only fill the engine's memory.
const size_t kLargestConfigFile = 1024 * 1024;

const char* const kKnownKeys[] = {
    "server",           "host_name",        "rest_url",        "ksqd_url",    "broker",
    "broker_order",     "ca_file",          "cert_file",       "key_file",    "metrics_file",
    "metrics_interval", "http_timeout",     "outbox",          "outbox_sync", "broker_tls",
    "broker_ca_file",   "broker_cert_file", "broker_key_file", "broker_user", "broker_password_file",
};

bool isKnownKey(const std::string& key) {
  for (const char* known : kKnownKeys) {
    if (key == known) return true;
  }
  return false;
}

// A file whose times are this close to the moment it was parsed may have
// been edited again since without its times moving: file systems stamp times
// from a clock that ticks this coarsely on some kernels.
const long kRacyNanoseconds = 50 * 1000 * 1000;

std::string trim(const std::string& text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return std::string();
  const size_t last = text.find_last_not_of(kBlanks);
  return text.substr(first, last - first + 1);
}

// What stat() tells of a file that decides whether it is the one parsed.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  timespec modified{};
  timespec changed{};

  explicit FileIdentity(const struct stat& status)
      : device(status.st_dev),
        inode(status.st_ino),
        size(status.st_size),
        modified(status.st_mtim),
        changed(status.st_ctim) {}

  bool operator==(const FileIdentity& other) const {
    return device == other.device && inode == other.inode && size == other.size && same(modified, other.modified) &&
           same(changed, other.changed);
  }

  // True when the file changed so shortly before `now` that a later edit
  // might carry the same times.
  bool changedAround(const timespec& now) const {
    const long long since =
        (static_cast<long long>(now.tv_sec) - changed.tv_sec) * 1000000000LL + (now.tv_nsec - changed.tv_nsec);
    return since < kRacyNanoseconds;
  }

 private:
  static bool same(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }
};

// Reads and parses the file at `snapshot.path`; `identity` is that of the
// file read, and false comes back when it could not be opened or read.
bool readFile(ConfigSnapshot& snapshot, std::unique_ptr<FileIdentity>& identity) {
  // Not blocked by a FIFO planted at the path: only a regular file is read.
  const int fd = open(snapshot.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct stat status {};
  int failure = 0;
  if (fd < 0 || fstat(fd, &status) != 0) {
    failure = errno != 0 ? errno : EIO;
  } else if (!S_ISREG(status.st_mode)) {
    failure = EINVAL;
  }
  if (failure != 0) {
    snapshot.readResult = failure;
    if (fd >= 0) close(fd);
    return false;
  }
  identity.reset(new FileIdentity(status));
  std::string text;
  char buffer[4096];
  ssize_t got;
  while ((got = read(fd, buffer, sizeof buffer)) != 0) {
    if (got > 0 && text.size() + static_cast<size_t>(got) > kLargestConfigFile) {
      snapshot.readResult = EFBIG;
      close(fd);
      return false;
    }
    if (got > 0) {
      text.append(buffer, static_cast<size_t>(got));
    } else if (errno != EINTR) {
      snapshot.readResult = errno;
      close(fd);
      return false;
    }
  }
  close(fd);
  snapshot.readResult = parseConfigText(text, snapshot.values, snapshot.badLine);
  return true;
}

// The last parse, and what the file was when it was read. Never destroyed:
// the publisher's thread reads the configuration while the process exits.
struct LastRead {
  port::Mutex mutex;
  std::shared_ptr<const ConfigSnapshot> snapshot GUARDED_BY(mutex);
  std::unique_ptr<FileIdentity> identity GUARDED_BY(mutex);
  bool racy GUARDED_BY(mutex) = false;  // read again on the next call whatever stat() says
};
port::NoDestructor<LastRead> g_last;

void lockForFork() NO_THREAD_SAFETY_ANALYSIS { g_last->mutex.lock(); }
void unlockAfterFork() NO_THREAD_SAFETY_ANALYSIS { g_last->mutex.unlock(); }

}  // namespace

const port::ForkHooks kConfigForkHooks = {&lockForFork, &unlockAfterFork, &unlockAfterFork};

const std::vector<std::string>& knownConfigKeys() {
  static port::NoDestructor<std::vector<std::string>> keys(std::begin(kKnownKeys), std::end(kKnownKeys));
  return *keys;
}

std::string setting(const ConfigValues& values, const std::string& key, const std::string& fallback) {
  const auto found = values.settings.find(key);
  return found != values.settings.end() ? found->second : fallback;
}

int parseConfigText(const std::string& text, ConfigValues& out) {
  int badLine = 0;
  return parseConfigText(text, out, badLine);
}

int parseConfigText(const std::string& text, ConfigValues& out, int& badLine) {
  ConfigValues parsed;
  badLine = 0;
  int lineNumber = 0;
  size_t start = 0;
  while (start <= text.size()) {
    ++lineNumber;
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = trim(text.substr(start, end - start));
    start = end + 1;
    if (line.empty() || line[0] == '#') continue;
    const size_t equals = line.find('=');
    const std::string key = equals == std::string::npos ? std::string() : trim(line.substr(0, equals));
    if (key.empty()) {
      badLine = lineNumber;
      return EINVAL;
    }
    const std::string value = trim(line.substr(equals + 1));
    if (key == "server") {
      parsed.servers.push_back(value);
    } else if (key == "host_name") {
      parsed.hasHostName = true;
      parsed.hostName = value;
    } else {
      parsed.settings[key] = value;
      if (!isKnownKey(key)) parsed.unknownKeys.push_back({key, lineNumber});
    }
  }
  out = std::move(parsed);
  return 0;
}

std::string configFilePath() {
  const char* path = secure_getenv("KEEPSTONE_CONF");
  return (path != nullptr && *path != '\0') ? path : "/etc/keepstone/keepstone.conf";
}

std::string ConfigSnapshot::problem() const {
  if (readResult == 0) return std::string();
  if (readResult == EINVAL && badLine > 0) {
    return path + " line " + std::to_string(badLine) + " is neither blank, a comment nor \"key = value\"";
  }
  return "cannot read " + path + ": " + std::strerror(readResult);
}

std::shared_ptr<const ConfigSnapshot> currentConfig() {
  LastRead& last = *g_last;
  auto fresh = std::make_shared<ConfigSnapshot>();
  fresh->path = configFilePath();
  struct stat status {};
  if (stat(fresh->path.c_str(), &status) != 0) {
    fresh->readResult = errno;
    return fresh;
  }
  {
    port::MutexLock lock(last.mutex);
    if (last.snapshot != nullptr && !last.racy && last.snapshot->path == fresh->path &&
        *last.identity == FileIdentity(status)) {
      return last.snapshot;
    }
  }
  // Read with no lock held. A file edited after its fstat() has other times
  // than those kept here, so the next call reads it again.
  std::unique_ptr<FileIdentity> identity;
  if (!readFile(*fresh, identity)) return fresh;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  port::MutexLock lock(last.mutex);
  last.racy = identity->changedAround(now);
  last.identity = std::move(identity);
  last.snapshot = fresh;
  return fresh;
}

void releaseConfigSnapshot() {
  port::MutexLock lock(g_last->mutex);
  g_last->snapshot.reset();
  g_last->identity.reset();
  g_last->racy = false;
}

}  // namespace standin
