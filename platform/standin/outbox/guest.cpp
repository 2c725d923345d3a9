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
  if (code == SQLITE_OK) code = sqlite3_prepare_v2(guest->m_db, kInsertEvent, -1, &guest->m_insert, nullptr);
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

bool GuestOutbox::append(const std::string& payload) {
  port::MutexLock lock(m_mutex);
  sqlite3_bind_blob(m_insert, 1, payload.data(), static_cast<int>(payload.size()), SQLITE_STATIC);
  sqlite3_bind_int64(m_insert, 2, static_cast<sqlite3_int64>(std::time(nullptr)));
  const int code = sqlite3_step(m_insert);
  sqlite3_reset(m_insert);
  sqlite3_clear_bindings(m_insert);
  if (code == SQLITE_DONE) {
    m_failing = false;
    return true;
  }
  if (!m_failing) {
    ksu_logmsg_str(FAILURE_LEVEL, "NotificationSupplier",
                   "cannot store events in " + m_path + ": " + sqlite3_errmsg(m_db) +
                       "; new events wait in memory only until it can be written again");
  }
  m_failing = true;
  return false;
}

}  // namespace standin
