#include "platform/standin/outbox/backlog.h"

#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>

#include "platform/standin/outbox/guest.h"
#include "platform/standin/outbox/schema.h"

namespace standin {
namespace {

const int kBusyTimeoutMs = 2000;  // the engine's write transactions are short

struct ConnectionClose {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};

struct StatementFinalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

// A descriptor, closed when it goes.
class ScopedFd {
 public:
  explicit ScopedFd(int fd) : m_fd(fd) {}
  ~ScopedFd() {
    if (m_fd >= 0) close(m_fd);
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  int get() const { return m_fd; }

 private:
  const int m_fd;
};

enum class Found { kNothing, kRegularFile, kSomethingElse };

// What lies at `name` in the directory open as `directory`, judged on a descriptor
// opened as the doctor opens everything it reads: without waiting on a FIFO
// and without following a symbolic link (which counts as something else).
// `size` is a regular file's size.
Found lookAt(int directory, const std::string& name, long long& size) {
  const ScopedFd fd(openat(directory, name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (fd.get() < 0) return errno == ENOENT ? Found::kNothing : Found::kSomethingElse;
  if (fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return Found::kSomethingElse;
  size = static_cast<long long>(status.st_size);
  return Found::kRegularFile;
}

// A URI that opens `path` read-only and creates nothing beside it. An engine
// that has the outbox open in WAL mode keeps its shared-memory index in
// "<path>-shm": a reader then takes part in it as the engine's sqlite3 shell
// would ("mode=ro"). Without that index no engine has the file open (the
// last connection removes the index and the WAL when it closes), and a
// reader that went through SQLite's locking would make both files afresh:
// the file is read as it lies ("immutable=1").
std::string readOnlyUri(const std::string& path, bool engineHasItOpen) {
  std::string uri = "file:";
  for (const char c : path) {
    if (c == '%' || c == '?' || c == '#') {
      static const char kHex[] = "0123456789ABCDEF";
      uri += '%';
      uri += kHex[static_cast<unsigned char>(c) >> 4];
      uri += kHex[static_cast<unsigned char>(c) & 0xf];
    } else {
      uri += c;
    }
  }
  return uri + (engineHasItOpen ? "?mode=ro" : "?immutable=1");
}

// Adds what waits in the database `name` of `directory` (open as
// `directoryFd`) to `backlog`; `size` is the size of the database itself,
// already checked to be a regular file. SQLite opens it again by name, never
// following a link, a moment after the check: what takes its place in that
// moment is read instead, and a FIFO put there then would hold the reader.
bool addWaiting(int directoryFd, const std::string& directory, const std::string& name, long long size,
                OutboxBacklog& backlog, std::string& error) {
  backlog.bytesOnDisk += size;
  bool engineHasItOpen = false;
  for (const char* suffix : {"-wal", "-shm"}) {
    long long companion = 0;
    if (lookAt(directoryFd, name + suffix, companion) != Found::kRegularFile) continue;
    backlog.bytesOnDisk += companion;
    engineHasItOpen = engineHasItOpen || std::string(suffix) == "-shm";
  }
  const std::string path = directory + "/" + name;
  sqlite3* opened = nullptr;
  const int code = sqlite3_open_v2(readOnlyUri(path, engineHasItOpen).c_str(), &opened,
                                   SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOFOLLOW, nullptr);
  const std::unique_ptr<sqlite3, ConnectionClose> db(opened);
  if (code != SQLITE_OK) {
    error = db != nullptr ? sqlite3_errmsg(db.get()) : sqlite3_errstr(code);
    return false;
  }
  sqlite3_busy_timeout(db.get(), kBusyTimeoutMs);
  sqlite3_stmt* prepared = nullptr;
  if (sqlite3_prepare_v2(db.get(), kCountWaiting, -1, &prepared, nullptr) != SQLITE_OK) {
    sqlite3_prepare_v2(db.get(), kCountWaitingOfVersion0, -1, &prepared, nullptr);
  }
  const std::unique_ptr<sqlite3_stmt, StatementFinalize> count(prepared);
  if (count == nullptr) return true;  // a new file: no table yet
  if (sqlite3_step(count.get()) != SQLITE_ROW) {
    error = sqlite3_errmsg(db.get());
    return false;
  }
  backlog.waiting += sqlite3_column_int64(count.get(), 0);
  if (sqlite3_column_type(count.get(), 1) != SQLITE_NULL) {
    const long long age = static_cast<long long>(std::time(nullptr)) - sqlite3_column_int64(count.get(), 1);
    backlog.oldestSeconds = std::max(backlog.oldestSeconds, age);
  }
  return true;
}

}  // namespace

bool readOutboxBacklog(const std::string& path, OutboxBacklog& backlog, std::string& error) {
  backlog = OutboxBacklog();
  const std::filesystem::path file(path);
  const std::string directory = file.has_parent_path() ? file.parent_path().string() : ".";
  const std::string name = file.filename().string();
  const ScopedFd directoryFd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
  if (directoryFd.get() < 0) {
    if (errno == ENOENT) return true;
    error = "cannot open directory " + directory + ": " + std::strerror(errno);
    return false;
  }
  long long size = 0;
  const Found outbox = lookAt(directoryFd.get(), name, size);
  if (outbox == Found::kSomethingElse) {
    error = path +
            " cannot be opened as a regular file (it is a symbolic link, a FIFO or a directory, or this user "
            "may not read it): it is not read";
    return false;
  }
  if (outbox == Found::kRegularFile && !addWaiting(directoryFd.get(), directory, name, size, backlog, error)) {
    return false;
  }
  // Listed through a descriptor of its own: closedir() closes it.
  DIR* listing = fdopendir(dup(directoryFd.get()));
  if (listing == nullptr) return true;
  bool readable = true;
  while (const dirent* entry = readdir(listing)) {
    // A guest's name on anything but a regular file is not a guest's: not counted.
    if (readable && isGuestOutboxName(entry->d_name, name) &&
        lookAt(directoryFd.get(), entry->d_name, size) == Found::kRegularFile) {
      readable = addWaiting(directoryFd.get(), directory, entry->d_name, size, backlog, error);
    }
  }
  closedir(listing);
  return readable;
}

}  // namespace standin
