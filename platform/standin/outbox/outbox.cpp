#include "platform/standin/outbox/outbox.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "platform/ksu_log.h"
#include "platform/standin/files/private_file.h"
#include "platform/standin/outbox/descriptor_vfs.h"
#include "platform/standin/outbox/event_reader.h"
#include "platform/standin/outbox/schema.h"
#include "port/no_destructor.h"

namespace standin {
namespace {

const char kLogFunction[] = "NotificationSupplier";
const int kBusyTimeoutMs = 5000;  // the sqlite3 shell of an operator reading the file
// The outbox, its companions and the copies set aside hold alerts: the
// engine's user's alone.
const mode_t kPrivateFileMode = 0600;

// WAL with synchronous NORMAL: a commit is a write() to the WAL, and only a
// checkpoint syncs. Checkpoints are the outbox's own thread's, never an
// append's. With FULL, every commit also syncs the WAL.
const char kSetUp[] =
    "PRAGMA journal_mode = WAL;"
    "PRAGMA wal_autocheckpoint = 0;"
    "PRAGMA journal_size_limit = 4194304;";

// The files of the outboxes that this process's parent had open when it
// forked: their SQLite bookkeeping is the parent's, so this process never
// opens them. Never destroyed: a publisher's thread may look while the
// process exits.
struct InheritedFiles {
  port::Mutex mutex;
  std::vector<std::pair<dev_t, ino_t>> files GUARDED_BY(mutex);
};
port::NoDestructor<InheritedFiles> g_inherited;

bool inheritedFromParent(const OutboxLocation& location) {
  struct stat file {};
  if (fstatat(location.directory->fd(), location.name.c_str(), &file, AT_SYMLINK_NOFOLLOW) != 0) return false;
  port::MutexLock lock(g_inherited->mutex);
  return std::find(g_inherited->files.begin(), g_inherited->files.end(), std::make_pair(file.st_dev, file.st_ino)) !=
         g_inherited->files.end();
}

// The file's schema version, or -1 when it cannot be read.
int schemaVersion(sqlite3* db, int& code) {
  sqlite3_stmt* statement = nullptr;
  int version = -1;
  code = sqlite3_prepare_v2(db, "PRAGMA user_version", -1, &statement, nullptr);
  if (code == SQLITE_OK && (code = sqlite3_step(statement)) == SQLITE_ROW) {
    version = sqlite3_column_int(statement, 0);
    code = SQLITE_OK;
  }
  sqlite3_finalize(statement);
  return version;
}

bool isDamage(int code) { return (code & 0xff) == SQLITE_NOTADB || (code & 0xff) == SQLITE_CORRUPT; }

std::string utcStamp() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
  return text;
}

// Gives the file `name` in the directory `directoryFd` to its owner alone
// (a file of an earlier release may be open to others); false when it
// cannot.
bool makePrivate(int directoryFd, const std::string& name) {
  return fchmodat(directoryFd, name.c_str(), kPrivateFileMode, 0) == 0;
}

// Renames the database and its WAL and index aside as "<name>.<kind>-<UTC
// time>", so that the sqlite3 shell still reads the set-aside copy whole. The
// path of the copy, or empty.
std::string setAside(const OutboxLocation& location, const char* kind, std::string& error) {
  const int directory = location.directory->fd();
  const std::string aside = location.name + "." + kind + "-" + utcStamp();
  if (renameat(directory, location.name.c_str(), directory, aside.c_str()) != 0) {
    error = "cannot rename it aside: " + std::string(std::strerror(errno));
    return std::string();
  }
  makePrivate(directory, aside);
  for (const char* suffix : {"-wal", "-shm"}) {
    if (renameat(directory, (location.name + suffix).c_str(), directory, (aside + suffix).c_str()) == 0) {
      makePrivate(directory, aside + suffix);
    }
  }
  return location.directory->shownPath(aside);
}

// Makes the database file, or takes the one there, as a regular file private
// to its owner: SQLite gives its WAL and index the database's mode. The
// database and, when they are there, its WAL and index must be the engine's
// own: SQLite writes all three.
bool preparePrivateFile(const OutboxLocation& location, std::string& error) {
  const PrivateDirectory& directory = *location.directory;
  const int fd = openOwnFileAt(directory.fd(), location.name, location.path(), O_RDWR | O_CREAT, kPrivateFileMode,
                               "the database", error);
  if (fd < 0) return false;
  fchmod(fd, kPrivateFileMode);  // a file of an earlier release may be open to others
  close(fd);
  for (const char* suffix : {"-wal", "-shm"}) {
    const std::string name = location.name + suffix;
    struct stat status {};
    if (fstatat(directory.fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) continue;  // SQLite makes it
    error = S_ISREG(status.st_mode)
                ? notOwnFileProblem(status, "the database's companion", directory.shownPath(name))
                : "the database's companion " + directory.shownPath(name) + " is not a regular file: refused";
    if (!error.empty()) return false;
  }
  return true;
}

// Opens a connection that has changed nothing in the file yet.
bool openConnection(const OutboxLocation& location, sqlite3*& db, int& code, std::string& error) {
  if (!preparePrivateFile(location, error)) {
    code = SQLITE_CANTOPEN;
    return false;
  }
  code = sqlite3_open_v2(location.directory->pathThroughDescriptor(location.name).c_str(), &db,
                         SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW, descriptorVfs());
  if (code == SQLITE_OK) {
    sqlite3_extended_result_codes(db, 1);
    // A row larger than this is no alert of ours; reading it fails, and
    // readEvents() sets it aside.
    sqlite3_limit(db, SQLITE_LIMIT_LENGTH, kLargestEvent);
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    return true;
  }
  error = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(code);
  return false;
}

// WAL mode, and the sync setting of the connection.
bool setUpConnection(sqlite3* db, bool fullSync, int& code, std::string& error) {
  code = sqlite3_exec(db, kSetUp, nullptr, nullptr, nullptr);
  if (code == SQLITE_OK) {
    code = sqlite3_exec(db, fullSync ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL", nullptr, nullptr,
                        nullptr);
  }
  if (code == SQLITE_OK) return true;
  error = sqlite3_errmsg(db);
  return false;
}

// "ok", or what the quick check found first.
std::string quickCheck(sqlite3* db, int& code) {
  sqlite3_stmt* statement = nullptr;
  std::string verdict;
  code = sqlite3_prepare_v2(db, "PRAGMA quick_check(1)", -1, &statement, nullptr);
  if (code == SQLITE_OK) code = sqlite3_step(statement);
  if (code == SQLITE_ROW) {
    verdict = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    code = SQLITE_OK;
  } else {
    verdict = sqlite3_errmsg(db);
  }
  sqlite3_finalize(statement);
  return verdict;
}

// The value of a one-row pragma such as "PRAGMA page_count"; -1 when it
// cannot be read.
int64_t pragmaValue(sqlite3* db, const char* pragma) {
  sqlite3_stmt* statement = nullptr;
  int64_t value = -1;
  if (sqlite3_prepare_v2(db, pragma, -1, &statement, nullptr) == SQLITE_OK && sqlite3_step(statement) == SQLITE_ROW)
    value = sqlite3_column_int64(statement, 0);
  sqlite3_finalize(statement);
  return value;
}

}  // namespace

std::unique_ptr<Outbox> Outbox::open(const OutboxLocation& location, bool fullSync, std::string& error,
                                     bool& ownedElsewhere) {
  ownedElsewhere = false;
  if (inheritedFromParent(location)) {
    ownedElsewhere = true;
    error = "this process was forked from one that has it open";
    return nullptr;
  }
  const std::string lockName = location.name + ".lock";
  const std::string lockPath = location.directory->shownPath(lockName);
  const int lockFd = openOwnFileAt(location.directory->fd(), lockName, lockPath, O_RDWR | O_CREAT, kPrivateFileMode,
                                   "the lock file", error);
  if (lockFd < 0) return nullptr;
  if (flock(lockFd, LOCK_EX | LOCK_NB) != 0) {
    const int saved = errno;
    close(lockFd);
    ownedElsewhere = saved == EWOULDBLOCK;
    error = ownedElsewhere ? "another publisher on this host holds it"
                           : "cannot lock " + lockPath + ": " + std::strerror(saved);
    return nullptr;
  }
  std::unique_ptr<Outbox> outbox(new Outbox(location, lockFd));
  outbox->m_fullSync = fullSync;
  bool damaged = false;
  if (!outbox->openConnections(fullSync, error, damaged) && (!damaged || !outbox->startAfresh(error))) {
    outbox->closeConnections();  // a file it cannot use is left as it is
    return nullptr;
  }
  outbox->adoptGuests(false);  // before any append: what guests left is part of the backlog
  outbox->m_checkpointThread = std::thread(&Outbox::checkpointLoop, outbox.get());
  outbox->requestCheckpoint();  // gives back the free pages a killed process left
  return outbox;
}

bool Outbox::startAfresh(std::string& error) {
  closeConnections();
  const std::string aside = setAside(m_location, "damaged", error);
  if (aside.empty()) return false;
  ksu_logmsg_str(
      FAILURE_LEVEL, kLogFunction,
      "the outbox " + m_path + " was damaged (" + error + "): set aside as " + aside + ", a new one is started");
  bool damaged = false;
  return openConnections(m_fullSync, error, damaged);
}

std::string Outbox::checkWhole() {
  port::MutexLock noCheckpoint(m_checkpointMutex);
  int code = SQLITE_OK;
  const std::string verdict = quickCheck(m_checkpointer, code);
  return verdict == "ok" || (code != SQLITE_OK && !isDamage(code)) ? std::string() : verdict;
}

bool Outbox::startAfreshAsDamaged(std::string& found) { return startAfresh(found); }

Outbox::Outbox(OutboxLocation location, int lockFd)
    : m_location(std::move(location)), m_path(m_location.path()), m_lockFd(lockFd) {}

Outbox::~Outbox() {
  if (m_checkpointThread.joinable()) {
    {
      port::MutexLock lock(m_requestMutex);
      m_stopping = true;
      m_requestChanged.notifyAll();
    }
    m_checkpointThread.join();
  }
  {
    port::MutexLock noCheckpoint(m_checkpointMutex);
    port::MutexLock lock(m_writeMutex);
    if (m_checkpointer != nullptr) shrink();
  }
  closeConnections();
  if (m_lockFd >= 0) close(m_lockFd);  // after the database is closed: the next owner finds it whole
}

bool Outbox::openConnections(bool fullSync, std::string& error, bool& damaged) {
  int code = SQLITE_OK;
  damaged = false;
  if (!openConnection(m_location, m_checkpointer, code, error)) return false;
  // Read before anything is written: a newer release's file may differ in
  // anything, its journal mode included.
  const int version = schemaVersion(m_checkpointer, code);
  if (version > kOutboxSchemaVersion) {
    error = "it was written by a newer release (schema version " + std::to_string(version) + "; this release knows " +
            std::to_string(kOutboxSchemaVersion) + ") and is left as it is for that release";
    return false;
  }
  if (version >= 0 && !setUpConnection(m_checkpointer, fullSync, code, error)) {
    damaged = isDamage(code);
    return false;
  }
  if (version == 0) code = sqlite3_exec(m_checkpointer, kUpgradeFromVersion0, nullptr, nullptr, nullptr);
  if (version < 0 || code != SQLITE_OK) {
    error = sqlite3_errmsg(m_checkpointer);
    sqlite3_exec(m_checkpointer, "ROLLBACK", nullptr, nullptr, nullptr);
    damaged = isDamage(code);
    return false;
  }
  if (!openConnection(m_location, m_writer, code, error) || !setUpConnection(m_writer, fullSync, code, error)) {
    return false;
  }
  sqlite3_wal_hook(m_writer, &Outbox::onWalCommit, this);
  sqlite3_wal_hook(m_checkpointer, &Outbox::onWalCommit, this);
  code = sqlite3_prepare_v2(m_writer, kInsertEvent, -1, &m_insert, nullptr);
  if (code == SQLITE_OK) code = sqlite3_prepare_v2(m_writer, kDeleteEvent, -1, &m_delete, nullptr);
  if (code != SQLITE_OK) {
    error = sqlite3_errstr(code);
    return false;
  }
  noteIdentity();
  return true;
}

void Outbox::noteIdentity() {
  struct stat file {};
  if (fstatat(m_location.directory->fd(), m_location.name.c_str(), &file, AT_SYMLINK_NOFOLLOW) != 0) return;
  m_device = file.st_dev;
  m_inode = file.st_ino;
}

void Outbox::closeConnections() {
  port::MutexLock noCheckpoint(m_checkpointMutex);
  port::MutexLock lock(m_writeMutex);
  sqlite3_finalize(m_insert);
  sqlite3_finalize(m_delete);
  sqlite3_close(m_writer);
  sqlite3_close(m_checkpointer);  // the last connection checkpoints and removes the WAL
  m_insert = m_delete = nullptr;
  m_writer = m_checkpointer = nullptr;
}

std::vector<Outbox::Event> Outbox::waiting(int64_t after, int64_t limit) {
  std::vector<Event> events;
  port::MutexLock lock(m_writeMutex);  // the connection's statements run one at a time
  if (readEvents(m_writer, *m_location.directory, m_location.name, after, limit, events) != SQLITE_DONE) {
    bool logged = false;
    logFailure(logged, m_writer, "cannot read the events waiting in the outbox " + m_path,
               "; they stay there, and new events go out meanwhile");
  }
  return events;
}

int64_t Outbox::append(const std::string& payload) {
  port::MutexLock lock(m_writeMutex);
  int code = SQLITE_OK;
  // A failed write (an I/O error, a lock or memory the system refused) is
  // most often gone by the next try: tried again at once, and reported only
  // when every try failed.
  for (int attempt = 0; attempt < kAppendAttempts && code != SQLITE_DONE; ++attempt) {
    sqlite3_bind_blob(m_insert, 1, payload.data(), static_cast<int>(payload.size()), SQLITE_STATIC);
    sqlite3_bind_int64(m_insert, 2, static_cast<sqlite3_int64>(std::time(nullptr)));
    code = sqlite3_step(m_insert);
    if (code != SQLITE_DONE && attempt + 1 == kAppendAttempts) {
      logFailure(m_appendFailing, m_writer, "cannot store events in the outbox " + m_path,
                 "; they wait in memory and go into it as soon as it can be written again");
    }
    sqlite3_reset(m_insert);
    sqlite3_clear_bindings(m_insert);
  }
  if (code != SQLITE_DONE) return 0;
  if (m_appendFailing) ksu_logmsg_str(PROGRESS_LEVEL, kLogFunction, "the outbox " + m_path + " stores events again");
  m_appendFailing = false;
  return sqlite3_last_insert_rowid(m_writer);
}

void Outbox::holdForFork() {
  m_checkpointMutex.lock();
  m_writeMutex.lock();
}

void Outbox::releaseAfterFork(bool inChild) {
  if (inChild) {
    if (m_lockFd >= 0) close(m_lockFd);
    m_lockFd = -1;
    port::MutexLock lock(g_inherited->mutex);
    g_inherited->files.emplace_back(m_device, m_inode);
  }
  m_writeMutex.unlock();
  m_checkpointMutex.unlock();
}

bool Outbox::remove(const std::vector<int64_t>& ids) {
  if (ids.empty()) return true;
  port::MutexLock lock(m_writeMutex);
  int code = sqlite3_exec(m_writer, "BEGIN", nullptr, nullptr, nullptr);
  for (size_t i = 0; code == SQLITE_OK && i < ids.size(); ++i) {
    sqlite3_bind_int64(m_delete, 1, ids[i]);
    code = sqlite3_step(m_delete) == SQLITE_DONE ? SQLITE_OK : sqlite3_errcode(m_writer);
    sqlite3_reset(m_delete);
  }
  const bool wasFailing = m_removeFailing;
  if (!endTransaction(code, m_removeFailing, "cannot remove acknowledged events from the outbox " + m_path,
                      "; they are removed later, or sent again at the next start")) {
    return false;
  }
  if (wasFailing) ksu_logmsg_str(PROGRESS_LEVEL, kLogFunction, "the outbox " + m_path + " removes events again");
  sqlite3_stmt* any = nullptr;
  m_drained =
      sqlite3_prepare_v2(m_writer, kAnyEvent, -1, &any, nullptr) == SQLITE_OK && sqlite3_step(any) == SQLITE_DONE;
  sqlite3_finalize(any);
  return true;
}

bool Outbox::endTransaction(int code, bool& failing, const std::string& what, const std::string& consequence) {
  if (code == SQLITE_OK) code = sqlite3_exec(m_writer, "COMMIT", nullptr, nullptr, nullptr);
  if (code == SQLITE_OK) {
    failing = false;
    return true;
  }
  // Logged before the rollback, whose own message would replace the reason.
  logFailure(failing, m_writer, what, consequence);
  sqlite3_exec(m_writer, "ROLLBACK", nullptr, nullptr, nullptr);
  return false;
}

int Outbox::onWalCommit(void* outbox, sqlite3* /*db*/, const char* /*name*/, int frames) noexcept {
  static_cast<Outbox*>(outbox)->m_walFrames.store(frames, std::memory_order_relaxed);
  return SQLITE_OK;
}

void Outbox::requestCheckpoint() {
  port::MutexLock lock(m_requestMutex);
  m_checkpointWanted = true;
  m_requestChanged.notifyAll();
}

void Outbox::checkpointLoop() {
  for (;;) {
    {
      port::MutexLock lock(m_requestMutex);
      m_requestChanged.wait(m_requestMutex,
                            [this]() REQUIRES(m_requestMutex) { return m_checkpointWanted || m_stopping; });
      if (m_stopping) return;
      m_checkpointWanted = false;
    }
    port::MutexLock working(m_checkpointMutex);
    try {
      checkpoint();
    } catch (const std::bad_alloc&) {
      // Short of memory: the next request checkpoints what this one did not.
    }
  }
}

void Outbox::checkpoint() {
  if (m_checkpointer == nullptr) return;  // closed: the outbox could not start afresh
  if (m_drained.exchange(false)) {
    port::MutexLock lock(m_writeMutex);
    shrink();
    return;
  }
  // Appends go on while the bulk is copied and synced.
  const bool pastBound = walPastBound();
  copyWal();
  if (!pastBound) return;
  // The few frames appended meanwhile are copied with appends held off. The
  // WAL is then wholly in the database with no append under way, so the next
  // append starts it over, cut back to journal_size_limit. (A whole copy
  // while an append runs does not: that append began reading the WAL.)
  port::MutexLock lock(m_writeMutex);
  copyWal();
}

void Outbox::copyWal() {
  int inWal = 0;
  int copied = 0;
  if (sqlite3_wal_checkpoint_v2(m_checkpointer, nullptr, SQLITE_CHECKPOINT_PASSIVE, &inWal, &copied) == SQLITE_OK &&
      copied == inWal) {
    m_walFrames.store(0, std::memory_order_relaxed);
  }
}

void Outbox::shrink() {
  const int64_t pages = pragmaValue(m_checkpointer, "PRAGMA page_count");
  const int64_t free = pragmaValue(m_checkpointer, "PRAGMA freelist_count");
  if (free > kFreePagesBound && pages - free <= kVacuumLivePages) {
    sqlite3_exec(m_checkpointer, "VACUUM", nullptr, nullptr, nullptr);
  }
  if (sqlite3_wal_checkpoint_v2(m_checkpointer, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr) == SQLITE_OK) {
    m_walFrames.store(0, std::memory_order_relaxed);
  }
}

void Outbox::logFailure(bool& logged, sqlite3* db, const std::string& what, const std::string& consequence) {
  if (!logged) {
    try {
      std::string reason = sqlite3_errmsg(db);
      const int systemError = sqlite3_system_errno(db);
      if (systemError != 0) reason += std::string(" (") + std::strerror(systemError) + ")";
      ksu_logmsg_str(FAILURE_LEVEL, kLogFunction, what + ": " + reason + consequence);
    } catch (const std::bad_alloc&) {
      // Short of memory, the line is lost; what failed is handled all the same.
    }
  }
  logged = true;
}

}  // namespace standin
