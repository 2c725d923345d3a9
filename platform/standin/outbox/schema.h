// The outbox's file format: an SQLite database with one table of events,
// written by the outbox's owner and, beside it, by each guest process.
#ifndef KSCDP_PLATFORM_STANDIN_OUTBOX_SCHEMA_H_
#define KSCDP_PLATFORM_STANDIN_OUTBOX_SCHEMA_H_

namespace standin {

// events(id INTEGER PRIMARY KEY, payload BLOB, raised INTEGER): a larger id
// is a later event; `raised` is when it was accepted, in seconds since the
// epoch (0 for an event of a version 0 file). PRAGMA user_version holds the
// version. Version 0 is a new file, or one of a release that kept no version
// and no `raised` column.
const int kOutboxSchemaVersion = 1;

// Makes a new file's table at the current version.
extern const char kCreateEventsTable[];
// Brings a version 0 file to version 1 in place, events kept.
extern const char kUpgradeFromVersion0[];
// Binds: 1 the payload, 2 the time it was raised.
extern const char kInsertEvent[];
// The same under a given id. Binds: 1 the payload, 2 the time it was
// raised, 3 the id.
extern const char kInsertEventAs[];
// Column: the largest id ever in the file, as far as it shows (NULL when
// none).
extern const char kLargestId[];
// Binds: 1 the id after which to start, 2 how many at most. Columns: id,
// payload, raised.
extern const char kSelectEventsAfter[];
// Binds: 1 the id.
extern const char kDeleteEvent[];
// Binds: 1 the id after which to look. Column: the next event's id, read
// from the table's key alone.
extern const char kSelectIdAfter[];
// A row when any event waits.
extern const char kAnyEvent[];
// Columns: how many events wait, and when the oldest was raised (NULL when
// none, or none knows).
extern const char kCountWaiting[];
// The same for a version 0 file, which keeps no time.
extern const char kCountWaitingOfVersion0[];
// Binds: 1 the highest id to remove.
extern const char kDeleteEventsUpTo[];

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_OUTBOX_SCHEMA_H_
