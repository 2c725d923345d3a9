#include "platform/standin/outbox/event_reader.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/ksu_log.h"
#include "platform/standin/outbox/schema.h"

namespace standin {
namespace {

const char kLogFunction[] = "NotificationSupplier";
const int kCopyChunk = 64 * 1024;
const int kLargestValue = 0x7fffffff;  // SQLite clamps it to its own hard limit

// Whether reading stopped at one event rather than at the file.
bool eventUnreadable(int code) { return (code & 0xff) == SQLITE_TOOBIG || (code & 0xff) == SQLITE_CORRUPT; }

// The id of the first event above `after`, read from the table's key alone;
// 0 when there is none or it cannot be read.
int64_t nextId(sqlite3* db, int64_t after) {
  sqlite3_stmt* statement = nullptr;
  int64_t id = 0;
  if (sqlite3_prepare_v2(db, kSelectIdAfter, -1, &statement, nullptr) == SQLITE_OK &&
      sqlite3_bind_int64(statement, 1, after) == SQLITE_OK && sqlite3_step(statement) == SQLITE_ROW) {
    id = sqlite3_column_int64(statement, 0);
  }
  sqlite3_finalize(statement);
  return id;
}

// Copies the payload of event `id` to the new file `asideName`, in chunks:
// the value is never whole in memory. Empty on success, else why not. `why`
// gets the event's size when it is the size that made it unreadable.
std::string copyPayload(sqlite3* db, int code, const PrivateDirectory& directory, int64_t id,
                        const std::string& asideName, std::string& why) {
  sqlite3_blob* blob = nullptr;
  // The limit guards whole reads; this one goes a chunk at a time.
  const int limit = sqlite3_limit(db, SQLITE_LIMIT_LENGTH, kLargestValue);
  const int opened = sqlite3_blob_open(db, "main", "events", "payload", id, 0, &blob);
  sqlite3_limit(db, SQLITE_LIMIT_LENGTH, limit);
  if (opened != SQLITE_OK) {
    const std::string failure = sqlite3_errmsg(db);
    sqlite3_blob_close(blob);
    return failure;
  }
  const int bytes = sqlite3_blob_bytes(blob);
  if ((code & 0xff) == SQLITE_TOOBIG) {
    why = "it is " + std::to_string(bytes) + " bytes, more than the " + std::to_string(kLargestEvent / 1024) +
          " KiB an event may have";
  }
  const int fd = openat(directory.fd(), asideName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  std::string failure = fd < 0 ? std::strerror(errno) : "";
  char chunk[kCopyChunk];
  for (int done = 0; failure.empty() && done < bytes;) {
    const int size = std::min(kCopyChunk, bytes - done);
    if (sqlite3_blob_read(blob, chunk, size, done) != SQLITE_OK) {
      failure = sqlite3_errmsg(db);
    } else if (write(fd, chunk, static_cast<size_t>(size)) != size) {
      failure = std::strerror(errno);
    }
    done += size;
  }
  sqlite3_blob_close(blob);
  if (fd >= 0 && close(fd) != 0 && failure.empty()) failure = std::strerror(errno);
  if (!failure.empty() && fd >= 0) unlinkat(directory.fd(), asideName.c_str(), 0);
  return failure;
}

// Sets event `id` aside, after reading it failed with `code`; logged.
void setAside(sqlite3* db, int code, const PrivateDirectory& directory, const std::string& file, int64_t id) {
  std::string why = sqlite3_errstr(code);
  const std::string asideName = file + ".set-aside-" + std::to_string(id);
  std::string failure = copyPayload(db, code, directory, id, asideName, why);
  sqlite3_stmt* remove = nullptr;
  if (failure.empty() && (sqlite3_prepare_v2(db, kDeleteEvent, -1, &remove, nullptr) != SQLITE_OK ||
                          sqlite3_bind_int64(remove, 1, id) != SQLITE_OK || sqlite3_step(remove) != SQLITE_DONE)) {
    failure = sqlite3_errmsg(db);  // the copy stays beside it: the event is in both
  }
  sqlite3_finalize(remove);
  const std::string event = "the event " + std::to_string(id) + " in " + directory.shownPath(file);
  ksu_logmsg_str(FAILURE_LEVEL, kLogFunction,
                 failure.empty() ? event + " cannot be sent (" + why + "): set aside as " +
                                       directory.shownPath(asideName) + "; the events after it go out"
                                 : event + " cannot be sent (" + why + ") nor set aside (" + failure +
                                       "): passed over; the events after it go out");
}

}  // namespace

int readEvents(sqlite3* db, const PrivateDirectory& directory, const std::string& file, int64_t after, int64_t limit,
               std::vector<StoredEvent>& events) {
  const size_t wanted = limit < 0 ? SIZE_MAX : events.size() + static_cast<size_t>(limit);
  for (;;) {
    sqlite3_stmt* select = nullptr;
    int code = sqlite3_prepare_v2(db, kSelectEventsAfter, -1, &select, nullptr);
    if (code == SQLITE_OK) {
      sqlite3_bind_int64(select, 1, after);
      sqlite3_bind_int64(select, 2, limit < 0 ? -1 : static_cast<sqlite3_int64>(wanted - events.size()));
    }
    while (code == SQLITE_OK && (code = sqlite3_step(select)) == SQLITE_ROW) {
      const auto* bytes = static_cast<const char*>(sqlite3_column_blob(select, 1));
      after = sqlite3_column_int64(select, 0);
      events.push_back(StoredEvent{
          after, std::string(bytes != nullptr ? bytes : "", static_cast<size_t>(sqlite3_column_bytes(select, 1))),
          sqlite3_column_int64(select, 2)});
      code = SQLITE_OK;
    }
    sqlite3_finalize(select);
    if (code == SQLITE_DONE || !eventUnreadable(code)) return code;
    const int64_t unreadable = nextId(db, after);
    if (unreadable == 0) return code;
    setAside(db, code, directory, file, unreadable);
    after = unreadable;  // passed over even when it stays
    if (events.size() >= wanted) return SQLITE_DONE;
  }
}

}  // namespace standin
