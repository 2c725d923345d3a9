#include "platform/standin/outbox/backlog.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
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

long long fileSize(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? static_cast<long long>(status.st_size) : 0;
}

bool exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

// A URI that opens `path` read-only and creates nothing beside it. An engine
// that has the outbox open in WAL mode keeps its shared-memory index in
// "<path>-shm": a reader then takes part in it as the engine's sqlite3 shell
// would ("mode=ro"). Without that index no engine has the file open (the
// last connection removes the index and the WAL when it closes), and a
// reader that went through SQLite's locking would make both files afresh:
// the file is read as it lies ("immutable=1").
std::string readOnlyUri(const std::string& path) {
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
  return uri + (exists(path + "-shm") ? "?mode=ro" : "?immutable=1");
}

// Adds what waits in the database at `path` to `backlog`.
bool addWaiting(const std::string& path, OutboxBacklog& backlog, std::string& error) {
  for (const char* suffix : {"", "-wal", "-shm"}) backlog.bytesOnDisk += fileSize(path + suffix);
  sqlite3* opened = nullptr;
  const int code = sqlite3_open_v2(readOnlyUri(path).c_str(), &opened, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
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
  if (exists(path) && !addWaiting(path, backlog, error)) return false;
  const std::filesystem::path file(path);
  std::error_code listed;
  for (const auto& entry : std::filesystem::directory_iterator(
           file.has_parent_path() ? file.parent_path() : std::filesystem::path("."), listed)) {
    if (isGuestOutboxName(entry.path().filename().string(), file.filename().string()) &&
        !addWaiting(entry.path().string(), backlog, error)) {
      return false;
    }
  }
  return true;
}

}  // namespace standin
