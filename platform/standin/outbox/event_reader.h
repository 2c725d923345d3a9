// Reading the events of an outbox file in order, so that no event can hold
// back the ones after it: an event that cannot be read (larger than an event
// may be, or damaged) is set aside in a file of its own beside the database,
// with one log line naming it and why, and the reading goes on past it.
#ifndef KSCDP_PLATFORM_STANDIN_OUTBOX_EVENT_READER_H_
#define KSCDP_PLATFORM_STANDIN_OUTBOX_EVENT_READER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "platform/standin/files/private_directory.h"
#include "platform/standin/outbox/stored_event.h"

struct sqlite3;

namespace standin {

// The most an event may hold: an alert is a few hundred bytes. A connection
// to an outbox file reads and writes no value larger than this
// (SQLITE_LIMIT_LENGTH), so that no file can make the engine read more.
const int kLargestEvent = 1024 * 1024;

// Appends to `events`, oldest first, the events of `db` with an id above
// `after`, until `events` holds `limit` more (-1: no limit) or none is left.
// An event that cannot be read is copied to "<file>.set-aside-<id>" in
// `directory`, where `file` is the database's name there, and removed
// (logged at level 16 under "NotificationSupplier"); when it cannot be
// copied it stays, and is passed over. Returns SQLITE_DONE, or SQLite's code
// for what stopped the reading (the file busy, a failed read of the whole
// file); the caller logs that. REQUIRES: no other statement of `db` runs
// meanwhile.
int readEvents(sqlite3* db, const PrivateDirectory& directory, const std::string& file, int64_t after, int64_t limit,
               std::vector<StoredEvent>& events);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_OUTBOX_EVENT_READER_H_
