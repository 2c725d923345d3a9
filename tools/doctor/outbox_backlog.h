// What waits in an alert outbox, read beside a running engine.
#ifndef KSCDP_TOOLS_DOCTOR_OUTBOX_BACKLOG_H_
#define KSCDP_TOOLS_DOCTOR_OUTBOX_BACKLOG_H_

#include <string>

namespace doctor {

struct OutboxBacklog {
  long long waiting = 0;         // alerts not yet acknowledged by a broker
  long long oldestSeconds = -1;  // since the oldest was raised; -1: unknown (none, or an older release's)
  long long bytesOnDisk = 0;     // the database, its WAL and its index together
};

// Reads the outbox at `path` through a read-only connection that takes none
// of the engine's locks, changes nothing and creates no file beside it (no
// "-wal", "-shm" or journal), whether an engine has the outbox open or none
// does. A missing file holds nothing. False, with SQLite's reason in `error`, when
// the file cannot be read.
bool readOutboxBacklog(const std::string& path, OutboxBacklog& backlog, std::string& error);

}  // namespace doctor

#endif  // KSCDP_TOOLS_DOCTOR_OUTBOX_BACKLOG_H_
