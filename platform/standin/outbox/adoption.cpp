// How the outbox's owner takes in what guest processes stored beside it.
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>

#include "platform/standin/outbox/guest.h"
#include "platform/standin/outbox/outbox.h"
#include "platform/standin/outbox/schema.h"

namespace standin {
namespace {

const int kBusyTimeoutMs = 5000;  // the guest appending meanwhile

}  // namespace

std::vector<Outbox::Event> Outbox::adoptGuests() {
  std::vector<Event> adopted;
  const std::filesystem::path file(m_path);
  const std::string outboxName = file.filename().string();
  std::error_code listed;
  for (const auto& entry : std::filesystem::directory_iterator(
           file.has_parent_path() ? file.parent_path() : std::filesystem::path("."), listed)) {
    if (isGuestOutboxName(entry.path().filename().string(), outboxName)) adoptGuest(entry.path().string(), adopted);
  }
  return adopted;
}

void Outbox::adoptGuest(const std::string& guestPath, std::vector<Event>& adopted) {
  const int fd = ::open(guestPath.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return;
  const bool guestGone = flock(fd, LOCK_EX | LOCK_NB) == 0;
  sqlite3* guest = nullptr;
  std::vector<GuestEvent> found;
  bool readWhole = false;
  if (sqlite3_open_v2(guestPath.c_str(), &guest, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW, nullptr) == SQLITE_OK) {
    sqlite3_busy_timeout(guest, kBusyTimeoutMs);
    sqlite3_stmt* select = nullptr;
    int code = sqlite3_prepare_v2(guest, kSelectEventsAfter, -1, &select, nullptr);
    sqlite3_bind_int64(select, 1, 0);
    sqlite3_bind_int64(select, 2, -1);  // no limit
    while (code == SQLITE_OK && (code = sqlite3_step(select)) == SQLITE_ROW) {
      const auto* bytes = static_cast<const char*>(sqlite3_column_blob(select, 1));
      found.push_back(
          GuestEvent{sqlite3_column_int64(select, 0),
                     std::string(bytes != nullptr ? bytes : "", static_cast<size_t>(sqlite3_column_bytes(select, 1))),
                     sqlite3_column_int64(select, 2)});
      code = SQLITE_OK;
    }
    sqlite3_finalize(select);
    readWhole = code == SQLITE_DONE;
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
  if (guestGone && empty) unlink(guestPath.c_str());
  close(fd);  // after the database: closing a descriptor of it would drop SQLite's locks
}

bool Outbox::storeAdopted(const std::vector<GuestEvent>& events, std::vector<Event>& adopted) {
  port::MutexLock lock(m_writeMutex);
  const size_t before = adopted.size();
  int code = sqlite3_exec(m_writer, "BEGIN", nullptr, nullptr, nullptr);
  for (size_t i = 0; code == SQLITE_OK && i < events.size(); ++i) {
    sqlite3_bind_blob(m_insert, 1, events[i].payload.data(), static_cast<int>(events[i].payload.size()), SQLITE_STATIC);
    sqlite3_bind_int64(m_insert, 2, events[i].raised);
    code = sqlite3_step(m_insert) == SQLITE_DONE ? SQLITE_OK : sqlite3_errcode(m_writer);
    sqlite3_reset(m_insert);
    if (code == SQLITE_OK) adopted.push_back(Event{sqlite3_last_insert_rowid(m_writer), events[i].payload});
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
