// The notification publisher's outbox: accepted events on disk, in an SQLite
// database in WAL mode, until the broker has acknowledged them.
#ifndef KSCDP_PLATFORM_STANDIN_OUTBOX_OUTBOX_H_
#define KSCDP_PLATFORM_STANDIN_OUTBOX_OUTBOX_H_

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/standin/outbox/event_reader.h"
#include "platform/standin/outbox/location.h"
#include "platform/standin/outbox/stored_event.h"
#include "port/mutex.h"

struct sqlite3;
struct sqlite3_stmt;

namespace standin {

// The file's format is in schema.h. An appended event is in the WAL,
// in the kernel's buffers, before append() returns, so it survives the
// process being killed; with `fullSync` it is also on the disk, and survives
// a power loss. Otherwise the WAL reaches the disk at each checkpoint, about
// once a second. One process at a time owns the file, through an flock on
// "<path>.lock"; the sqlite3 shell may read it meanwhile, and other processes
// store their events in guest files beside it (guest.h), which the
// owner adopts. Every file is reached through the location's directory
// descriptor, and each it writes must be the engine's own (openOwnFileAt).
// Failures are logged at level 16 under "NotificationSupplier".
class Outbox {
 public:
  using Event = StoredEvent;

  // Opens the outbox at `location`, creating the file when missing, and
  // adopts what guests left beside it. A file that is not a
  // database, or one whose schema is damaged, is renamed aside with a time
  // stamp (logged) and a new one started. A file of an older version is
  // upgraded in place; one that a newer release wrote is left as it is, for
  // that release to send its events when it returns. Null, with the reason
  // in `error`, when the outbox cannot be used; `ownedElsewhere` is then true
  // when another process owns it, or this process was forked from one that
  // had it open: events then go to a guest file. Reads only the file's first
  // pages: checkWhole() reads the rest.
  static std::unique_ptr<Outbox> open(const OutboxLocation& location, bool fullSync, std::string& error,
                                      bool& ownedElsewhere);
  ~Outbox();
  Outbox(const Outbox&) = delete;
  Outbox& operator=(const Outbox&) = delete;

  const std::string& path() const { return m_path; }

  // What SQLite's quick check finds wrong in the whole file, empty when
  // nothing. The network thread's, before it reads the backlog; appends may
  // run meanwhile.
  std::string checkWhole();
  // Sets a damaged outbox aside (logged, naming `found`, what was wrong) and
  // starts a new one at the same path, keeping the lock; the events stored
  // so far go with the old file. False, with the reason in `found`, when no
  // new one could be started. No append may run meanwhile.
  bool startAfreshAsDamaged(std::string& found);

  // Up to `limit` events with an id above `after`, oldest first; one that
  // cannot be read is set aside and passed over (readEvents). Empty, logged,
  // when the outbox cannot be read. The network thread's; appends
  // may run meanwhile.
  std::vector<Event> waiting(int64_t after, int64_t limit);
  // Stores one event and returns its id, or 0 when it cannot be stored after
  // kAppendAttempts tries (one log line per run of failures). Thread-safe.
  int64_t append(const std::string& payload);
  // Removes the events with these ids, in one transaction. False when they
  // could not be removed (one log line per run of failures, and one when
  // removals work again).
  bool remove(const std::vector<int64_t>& ids);
  // Moves into this outbox what guests that are gone left beside it, and
  // with `liveToo` what live guests still hold (they send their events
  // themselves: this is for an owner that stops), and removes the files of
  // guests that are gone. Returns the moved events under their ids here, in
  // each guest's order; an event may be moved twice (a failure between
  // storing it here and removing it there, or a live guest that sends it
  // too), never lost. The network thread's; appends may run meanwhile.
  std::vector<Event> adoptGuests(bool liveToo);
  // Asks the outbox's own thread to copy the WAL into the database and sync
  // both: the batched sync. Once the WAL has passed its bound, that thread
  // also copies what was appended meanwhile, holding appends off for that
  // short while, so that the next append starts the WAL over; and once the
  // outbox is empty after a large backlog, it gives the space back. Returns
  // at once: neither a sync nor a copy holds up the caller. Thread-safe.
  void requestCheckpoint();
  // Whether the WAL has passed its bound: the network thread should ask for
  // a checkpoint now rather than at its next turn. Thread-safe.
  bool walPastBound() const { return m_walFrames.load(std::memory_order_relaxed) > kWalBoundFrames; }

  // Around fork(): holds every write and checkpoint in the forking thread,
  // then lets them go. In a child, also closes the child's copy of the lock
  // file, so that the parent's ownership ends when the parent lets it go, and
  // marks the file as one this process may never open (see GuestOutbox); a
  // child never uses its parent's outbox, nor its checkpoint thread.
  void holdForFork() ACQUIRE(m_checkpointMutex, m_writeMutex);
  void releaseAfterFork(bool inChild) RELEASE(m_checkpointMutex, m_writeMutex);

 private:
  Outbox(OutboxLocation location, int lockFd);

  // About 4 MiB of WAL with SQLite's 4 KiB pages: what the outbox may hold
  // beyond its database file while no broker acknowledges anything.
  static const int kWalBoundFrames = 1024;
  // Tries of one append before it is reported as failed.
  static const int kAppendAttempts = 3;
  // Free pages past this (4 MiB) go back to the file system once the outbox
  // holds little: after a drain, when it opens and when it closes.
  static const int kFreePagesBound = 1024;
  // What the outbox may hold (in pages) for that: a VACUUM copies it all.
  static const int kVacuumLivePages = 256;

  // SQLite's WAL hook: notes the WAL's length after each commit. Called from
  // C; nothing unwinds through it.
  static int onWalCommit(void* outbox, sqlite3* db, const char* name, int frames) noexcept;
  // The checkpoint thread: one checkpoint() per request, until the outbox
  // closes.
  void checkpointLoop();
  void checkpoint() REQUIRES(m_checkpointMutex);
  // A passive checkpoint: copies what no reader still needs from the WAL.
  void copyWal() REQUIRES(m_checkpointMutex);
  // VACUUM when free pages pass their bound and the outbox holds little,
  // then a truncating checkpoint.
  void shrink() REQUIRES(m_checkpointMutex, m_writeMutex);
  // adoptGuests() for the guest file `name`, open as `fd`.
  void adoptGuest(const std::string& name, int fd, bool liveToo, std::vector<Event>& adopted);
  // Stores a guest's events here in one transaction, appending them with
  // their ids here to `adopted`; false (logged) when it cannot.
  bool storeAdopted(const std::vector<StoredEvent>& events, std::vector<Event>& adopted);

  // Opens both connections; false, with the reason in `error`, when the
  // file cannot be used, and `damaged` when that is because it is damaged.
  bool openConnections(bool fullSync, std::string& error, bool& damaged);
  // Sets the file aside as damaged (logged) and opens a new one.
  bool startAfresh(std::string& error);
  // Notes which file the connections have open, for releaseAfterFork().
  void noteIdentity();
  void closeConnections();
  // Commits the writer's transaction when `code`, its statements' result, is
  // SQLITE_OK. Otherwise, or when the commit fails, logs (once per run of
  // failures, `failing`) and rolls back. True when it committed.
  bool endTransaction(int code, bool& failing, const std::string& what, const std::string& consequence)
      REQUIRES(m_writeMutex);
  // Logs "<what>: <SQLite's reason><consequence>" unless `logged`, and sets it.
  void logFailure(bool& logged, sqlite3* db, const std::string& what, const std::string& consequence);

  const OutboxLocation m_location;
  const std::string m_path;  // m_location's, for messages
  int m_lockFd;              // holds the flock that makes this process the outbox's owner
  bool m_fullSync = false;
  dev_t m_device = 0;  // of the database file the connections have open
  ino_t m_inode = 0;

  // Every read and write of the events goes through one connection, under
  // m_writeMutex: a write by a second connection would make this one drop
  // its page cache at its next append. The checkpoint thread checkpoints
  // through the other, so a passive checkpoint never holds up an append; its
  // writes (the last frames, truncation, vacuum) take m_writeMutex too, so
  // that neither connection ever waits in SQLite's busy handler for the
  // other. m_checkpointMutex, held through each checkpoint and the quick
  // check, is taken before m_writeMutex.
  port::Mutex m_checkpointMutex;
  port::Mutex m_writeMutex;
  sqlite3* m_writer = nullptr;
  sqlite3_stmt* m_insert GUARDED_BY(m_writeMutex) = nullptr;
  bool m_appendFailing GUARDED_BY(m_writeMutex) = false;
  sqlite3* m_checkpointer = nullptr;
  sqlite3_stmt* m_delete GUARDED_BY(m_writeMutex) = nullptr;
  bool m_removeFailing GUARDED_BY(m_writeMutex) = false;
  bool m_adoptFailing GUARDED_BY(m_writeMutex) = false;
  // Files with a guest's name that adoptGuests() left alone (name and
  // inode), each logged once: the network thread's.
  std::set<std::pair<std::string, ino_t>> m_leftAlone;
  // The last removal left the outbox empty: the next checkpoint looks for
  // free pages to give back. So does the first.
  std::atomic<bool> m_drained{true};
  std::atomic<int> m_walFrames{0};

  port::Mutex m_requestMutex;
  port::CondVar m_requestChanged;
  bool m_checkpointWanted GUARDED_BY(m_requestMutex) = false;
  bool m_stopping GUARDED_BY(m_requestMutex) = false;
  std::thread m_checkpointThread;
};

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_OUTBOX_OUTBOX_H_
