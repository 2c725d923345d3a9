#include "platform/standin/outbox/guest.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/ksu_log.h"
#include "platform/standin/files/private_file.h"
#include "platform/standin/outbox/descriptor_vfs.h"
#include "platform/standin/outbox/event_reader.h"
#include "platform/standin/outbox/schema.h"

namespace standin {
namespace {

const char kLogFunction[] = "NotificationSupplier";
const char kGuestInfix[] = ".guest-";
const int kBusyTimeoutMs = 5000;  // the owner moving events out

const mode_t kGuestFileMode = 0600;

// Opens the guest file `name` in `directory`, as the engine's own, and takes
// its flock, waiting while an owner that found the guest gone removes the
// file; -1 with why in `error` when it cannot.
int lockFile(const PrivateDirectory& directory, const std::string& name, std::string& error) {
  for (;;) {
    const int fd = openOwnFileAt(directory.fd(), name, directory.shownPath(name), O_RDWR | O_CREAT, kGuestFileMode,
                                 "the guest file", error);
    if (fd < 0) return -1;
    struct stat opened {};
    struct stat named {};
    if (flock(fd, LOCK_EX) == 0 && fstat(fd, &opened) == 0 &&
        fstatat(directory.fd(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 && opened.st_ino == named.st_ino &&
        opened.st_dev == named.st_dev) {
      fchmod(fd, kGuestFileMode);  // the owner adopts nothing else
      return fd;
    }
    close(fd);  // removed meanwhile: a new file of the same name is the one to take
  }
}

}  // namespace

std::string guestOutboxName(const std::string& outboxName, pid_t pid) {
  return outboxName + kGuestInfix + std::to_string(pid);
}

bool isGuestOutboxName(const std::string& name, const std::string& outboxName) {
  const std::string prefix = outboxName + kGuestInfix;
  return name.size() > prefix.size() && name.compare(0, prefix.size(), prefix) == 0 &&
         name.find_first_not_of("0123456789", prefix.size()) == std::string::npos;
}

std::unique_ptr<GuestOutbox> GuestOutbox::open(const OutboxLocation& outbox, bool fullSync, std::string& error) {
  const std::string name = guestOutboxName(outbox.name, getpid());
  const int lockFd = lockFile(*outbox.directory, name, error);
  if (lockFd < 0) return nullptr;
  std::unique_ptr<GuestOutbox> guest(new GuestOutbox(outbox.directory, name, lockFd));
  const std::string& path = guest->m_path;
  // A rollback journal rather than a WAL: no companion file outlives a
  // transaction, and the owner reads the file only now and then.
  const std::string setUp = std::string("PRAGMA journal_mode = DELETE; PRAGMA synchronous = ") +
                            (fullSync ? "FULL;" : "OFF;") + kCreateEventsTable;
  int code = sqlite3_open_v2(outbox.directory->pathThroughDescriptor(name).c_str(), &guest->m_db,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW, descriptorVfs());
  if (code == SQLITE_OK) {
    sqlite3_busy_timeout(guest->m_db, kBusyTimeoutMs);
    sqlite3_limit(guest->m_db, SQLITE_LIMIT_LENGTH, kLargestEvent);  // what the owner takes
    code = sqlite3_exec(guest->m_db, setUp.c_str(), nullptr, nullptr, nullptr);
  }
  port::MutexLock lock(guest->m_mutex);
  if (code == SQLITE_OK) code = sqlite3_prepare_v2(guest->m_db, kInsertEventAs, -1, &guest->m_insert, nullptr);
  sqlite3_stmt* largest = nullptr;
  if (code == SQLITE_OK) code = sqlite3_prepare_v2(guest->m_db, kLargestId, -1, &largest, nullptr);
  if (code == SQLITE_OK && sqlite3_step(largest) == SQLITE_ROW) guest->m_lastId = sqlite3_column_int64(largest, 0);
  sqlite3_finalize(largest);
  if (code != SQLITE_OK) {
    error = "cannot use " + path + ": " + (guest->m_db != nullptr ? sqlite3_errmsg(guest->m_db) : sqlite3_errstr(code));
    return nullptr;
  }
  return guest;
}

GuestOutbox::~GuestOutbox() {
  bool empty = false;
  {
    port::MutexLock lock(m_mutex);
    sqlite3_finalize(m_insert);
    sqlite3_stmt* any = nullptr;
    empty = m_db != nullptr && sqlite3_prepare_v2(m_db, kAnyEvent, -1, &any, nullptr) == SQLITE_OK &&
            sqlite3_step(any) == SQLITE_DONE;
    sqlite3_finalize(any);
  }
  sqlite3_close(m_db);
  if (empty) unlinkat(m_directory->fd(), m_name.c_str(), 0);  // still under the flock: no owner reads it now
  close(m_lockFd);  // after the database: closing a descriptor of it would drop SQLite's locks
}

int64_t GuestOutbox::append(const std::string& payload) {
  port::MutexLock lock(m_mutex);
  const int64_t id = m_lastId + 1;
  sqlite3_bind_blob(m_insert, 1, payload.data(), static_cast<int>(payload.size()), SQLITE_STATIC);
  sqlite3_bind_int64(m_insert, 2, static_cast<sqlite3_int64>(std::time(nullptr)));
  sqlite3_bind_int64(m_insert, 3, id);
  const int code = sqlite3_step(m_insert);
  sqlite3_reset(m_insert);
  sqlite3_clear_bindings(m_insert);
  if (code == SQLITE_DONE) {
    m_failing = false;
    m_lastId = id;
    return id;
  }
  if (!m_failing) {
    ksu_logmsg_str(FAILURE_LEVEL, kLogFunction,
                   "cannot store events in " + m_path + ": " + sqlite3_errmsg(m_db) +
                       "; new events wait in memory only until it can be written again");
  }
  m_failing = true;
  return 0;
}

void GuestOutbox::remove(const std::vector<int64_t>& ids) {
  if (ids.empty()) return;
  port::MutexLock lock(m_mutex);
  sqlite3_stmt* remove = nullptr;
  int code = sqlite3_exec(m_db, "BEGIN", nullptr, nullptr, nullptr);
  if (code == SQLITE_OK) code = sqlite3_prepare_v2(m_db, kDeleteEvent, -1, &remove, nullptr);
  for (size_t i = 0; code == SQLITE_OK && i < ids.size(); ++i) {
    sqlite3_bind_int64(remove, 1, ids[i]);
    code = sqlite3_step(remove) == SQLITE_DONE ? SQLITE_OK : sqlite3_errcode(m_db);
    sqlite3_reset(remove);
  }
  sqlite3_finalize(remove);
  if (code == SQLITE_OK) code = sqlite3_exec(m_db, "COMMIT", nullptr, nullptr, nullptr);
  if (code == SQLITE_OK) {
    m_removeFailing = false;
    return;
  }
  if (!m_removeFailing) {
    ksu_logmsg_str(FAILURE_LEVEL, kLogFunction,
                   "cannot remove acknowledged events from " + m_path + ": " + sqlite3_errmsg(m_db) +
                       "; the outbox's owner may deliver them again");
  }
  m_removeFailing = true;
  sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
}

}  // namespace standin
