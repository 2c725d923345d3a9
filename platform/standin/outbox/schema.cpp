#include "platform/standin/outbox/schema.h"

namespace standin {

const char kCreateEventsTable[] =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE IF NOT EXISTS events (id INTEGER PRIMARY KEY, payload BLOB NOT NULL,"
    " raised INTEGER NOT NULL DEFAULT 0);"
    "PRAGMA user_version = 1;"
    "COMMIT;";
const char kUpgradeFromVersion0[] =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE IF NOT EXISTS events (id INTEGER PRIMARY KEY, payload BLOB NOT NULL);"
    "ALTER TABLE events ADD COLUMN raised INTEGER NOT NULL DEFAULT 0;"
    "PRAGMA user_version = 1;"
    "COMMIT;";
const char kInsertEvent[] = "INSERT INTO events (payload, raised) VALUES (?, ?)";
const char kInsertEventAs[] = "INSERT INTO events (payload, raised, id) VALUES (?1, ?2, ?3)";
const char kLargestId[] = "SELECT max(id) FROM events";
const char kSelectEventsAfter[] = "SELECT id, payload, raised FROM events WHERE id > ?1 ORDER BY id LIMIT ?2";
const char kDeleteEvent[] = "DELETE FROM events WHERE id = ?";
const char kSelectIdAfter[] = "SELECT id FROM events WHERE id > ? ORDER BY id LIMIT 1";
const char kDeleteEventsUpTo[] = "DELETE FROM events WHERE id <= ?";
const char kAnyEvent[] = "SELECT 1 FROM events LIMIT 1";
const char kCountWaiting[] = "SELECT count(*), min(NULLIF(raised, 0)) FROM events";
const char kCountWaitingOfVersion0[] = "SELECT count(*), NULL FROM events";

}  // namespace standin
