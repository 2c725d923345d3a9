// Where a process keeps the events it accepts while another process owns the
// outbox: a forked child whose parent's publisher has the outbox open, or a
// second engine configured with the same outbox.
#ifndef KSCDP_PLATFORM_STANDIN_OUTBOX_GUEST_H_
#define KSCDP_PLATFORM_STANDIN_OUTBOX_GUEST_H_

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/standin/outbox/location.h"
#include "port/mutex.h"

struct sqlite3;
struct sqlite3_stmt;

namespace standin {

// A guest's file: "<outbox>.guest-<pid>", a database of the outbox's format
// (schema.h) that only this process writes, holding an flock on it
// while it lives. It never opens the owner's file: a forked child shares its
// parent's SQLite bookkeeping for that file, so a connection of its own
// would take locks that exist only in the parent. A guest with a publisher
// sends its events itself and removes each the broker acknowledges, so the
// file holds only what is still owed. The outbox's owner moves what guests
// that are gone left into its own file (Outbox::adoptGuests), and what live
// guests hold too when it stops, and removes the files of guests that are
// gone. An appended event is in the file, in the
// kernel's buffers, before append() returns, so it survives the process
// being killed. Failures are logged at level 16 under
// "NotificationSupplier".
class GuestOutbox {
 public:
  // Opens, creating it when missing, the guest file of this process beside
  // the outbox at `outbox`, through its directory. `fullSync`: sync every
  // append to the disk. Null, with the reason in `error`, when it cannot be
  // used.
  static std::unique_ptr<GuestOutbox> open(const OutboxLocation& outbox, bool fullSync, std::string& error);
  // Closes the file, and removes it when it holds nothing.
  ~GuestOutbox();
  GuestOutbox(const GuestOutbox&) = delete;
  GuestOutbox& operator=(const GuestOutbox&) = delete;

  const std::string& path() const { return m_path; }

  // Stores one event and returns its id in this file, or 0 when it cannot be
  // stored (logged, once per run of failures). An id is never given twice,
  // even after the owner has moved every event out. Thread-safe.
  int64_t append(const std::string& payload);
  // Removes the events with these ids, which the broker has acknowledged, in
  // one transaction; those the owner moved out meanwhile are gone already.
  // Thread-safe.
  void remove(const std::vector<int64_t>& ids);

 private:
  GuestOutbox(std::shared_ptr<const PrivateDirectory> directory, std::string name, int lockFd)
      : m_directory(std::move(directory)),
        m_name(std::move(name)),
        m_path(m_directory->shownPath(m_name)),
        m_lockFd(lockFd) {}

  const std::shared_ptr<const PrivateDirectory> m_directory;
  const std::string m_name;
  const std::string m_path;  // for messages
  const int m_lockFd;        // holds the flock that tells the owner this guest lives
  port::Mutex m_mutex;
  sqlite3* m_db = nullptr;
  sqlite3_stmt* m_insert GUARDED_BY(m_mutex) = nullptr;
  int64_t m_lastId GUARDED_BY(m_mutex) = 0;  // the last id given
  bool m_failing GUARDED_BY(m_mutex) = false;
  bool m_removeFailing GUARDED_BY(m_mutex) = false;
};

// The name of process `pid`'s guest file beside the outbox file `outboxName`.
std::string guestOutboxName(const std::string& outboxName, pid_t pid);
// Whether `name`, a file name without its directory, is a guest file of the
// outbox whose file name is `outboxName` (not its journal).
bool isGuestOutboxName(const std::string& name, const std::string& outboxName);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_OUTBOX_GUEST_H_
