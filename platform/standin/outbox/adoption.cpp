// How the outbox's owner takes in what guest processes stored beside it.
#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/ksu_log.h"
#include "platform/standin/files/private_file.h"
#include "platform/standin/outbox/descriptor_vfs.h"
#include "platform/standin/outbox/event_reader.h"
#include "platform/standin/outbox/guest.h"
#include "platform/standin/outbox/outbox.h"
#include "platform/standin/outbox/schema.h"

namespace standin {
namespace {

const char kLogFunction[] = "NotificationSupplier";
const int kBusyTimeoutMs = 5000;  // the guest appending meanwhile
const mode_t kGuestFileMode = 0600;

// The names in the directory `directoryFd` that are guest files of the
// outbox file `outboxName`.
std::vector<std::string> guestNames(int directoryFd, const std::string& outboxName) {
  std::vector<std::string> names;
  const int listFd = openat(directoryFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  // Closed also when an allocation fails while the names are read.
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(listFd >= 0 ? fdopendir(listFd) : nullptr, closedir);
  if (!listing) {
    if (listFd >= 0) close(listFd);
    return names;
  }
  while (const dirent* entry = readdir(listing.get())) {
    if (isGuestOutboxName(entry->d_name, outboxName)) names.emplace_back(entry->d_name);
  }
  return names;
}

// Why the file opened as `status` is no guest file of this engine's, in a
// few words; empty when it is one.
std::string notAGuestFile(const struct stat& status) {
  if (!S_ISREG(status.st_mode)) return "it is not a regular file";
  if (status.st_uid != geteuid()) {
    return "it belongs to user " + std::to_string(status.st_uid) + ", not to this process's user " +
           std::to_string(geteuid());
  }
  if (status.st_nlink != 1) return "it has " + std::to_string(status.st_nlink) + " links";
  if ((status.st_mode & 07777) != kGuestFileMode) return "its mode is " + modeText(status.st_mode) + ", not 0600";
  return std::string();
}

}  // namespace

std::vector<Outbox::Event> Outbox::adoptGuests(bool liveToo) {
  std::vector<Event> adopted;
  std::set<std::pair<std::string, ino_t>> stillThere;
  for (const std::string& name : guestNames(m_location.directory->fd(), m_location.name)) {
    // Opened without following a link, without blocking on a FIFO, and
    // judged on the descriptor.
    const int fd = openat(m_location.directory->fd(), name.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct stat status {};
    const bool opened = fd >= 0 && fstat(fd, &status) == 0;
    const std::string problem =
        opened ? notAGuestFile(status) : "it cannot be opened: " + std::string(std::strerror(errno));
    if (problem.empty()) {
      adoptGuest(name, fd, liveToo, adopted);
    } else {
      const auto seen = std::make_pair(name, opened ? status.st_ino : 0);
      stillThere.insert(seen);
      if (m_leftAlone.count(seen) == 0) {
        ksu_logmsg_str(FAILURE_LEVEL, kLogFunction,
                       "left " + m_location.directory->shownPath(name) + " alone: it has a guest file's name, but " +
                           problem + "; a guest file is the engine's own regular file, mode 0600, with one link");
      }
    }
    if (fd >= 0) close(fd);  // after the guest's database: closing a descriptor of it would drop SQLite's locks
  }
  m_leftAlone.swap(stillThere);
  return adopted;
}

void Outbox::adoptGuest(const std::string& name, int fd, bool liveToo, std::vector<Event>& adopted) {
  const bool guestGone = flock(fd, LOCK_EX | LOCK_NB) == 0;
  if (!guestGone && !liveToo) return;  // it sends its events itself
  sqlite3* guest = nullptr;
  std::vector<StoredEvent> found;
  bool readWhole = false;
  if (sqlite3_open_v2(m_location.directory->pathThroughDescriptor(name).c_str(), &guest,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW, descriptorVfs()) == SQLITE_OK) {
    sqlite3_busy_timeout(guest, kBusyTimeoutMs);
    sqlite3_limit(guest, SQLITE_LIMIT_LENGTH, kLargestEvent);  // the outbox's own cap
    readWhole = readEvents(guest, *m_location.directory, name, 0, -1, found) == SQLITE_DONE;
  }
  // Stored here before they leave there: a failure in between sends an
  // event twice rather than losing it.
  bool empty = readWhole && found.empty();
  if (!found.empty() && storeAdopted(found, adopted)) {
    sqlite3_stmt* remove = nullptr;
    empty = sqlite3_prepare_v2(guest, kDeleteEventsUpTo, -1, &remove, nullptr) == SQLITE_OK &&
            sqlite3_bind_int64(remove, 1, found.back().id) == SQLITE_OK && sqlite3_step(remove) == SQLITE_DONE &&
            readWhole;
    sqlite3_finalize(remove);
  }
  sqlite3_close(guest);
  if (guestGone && empty) unlinkat(m_location.directory->fd(), name.c_str(), 0);
}

bool Outbox::storeAdopted(const std::vector<StoredEvent>& events, std::vector<Event>& adopted) {
  port::MutexLock lock(m_writeMutex);
  const size_t before = adopted.size();
  int code = sqlite3_exec(m_writer, "BEGIN", nullptr, nullptr, nullptr);
  for (size_t i = 0; code == SQLITE_OK && i < events.size(); ++i) {
    sqlite3_bind_blob(m_insert, 1, events[i].payload.data(), static_cast<int>(events[i].payload.size()), SQLITE_STATIC);
    sqlite3_bind_int64(m_insert, 2, events[i].raised);
    code = sqlite3_step(m_insert) == SQLITE_DONE ? SQLITE_OK : sqlite3_errcode(m_writer);
    sqlite3_reset(m_insert);
    if (code == SQLITE_OK)
      adopted.push_back(Event{sqlite3_last_insert_rowid(m_writer), events[i].payload, events[i].raised});
  }
  sqlite3_clear_bindings(m_insert);
  if (endTransaction(code, m_adoptFailing, "cannot move the events of other processes into the outbox " + m_path,
                     "; they wait where those processes stored them")) {
    return true;
  }
  adopted.resize(before);
  return false;
}

}  // namespace standin
