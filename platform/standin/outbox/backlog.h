// What waits in an alert outbox, read beside a running engine: the outbox's
// one read-only query, beside its schema.
#ifndef KSCDP_PLATFORM_STANDIN_OUTBOX_BACKLOG_H_
#define KSCDP_PLATFORM_STANDIN_OUTBOX_BACKLOG_H_

#include <string>

namespace standin {

struct OutboxBacklog {
  long long waiting = 0;         // alerts not yet acknowledged by a broker
  long long oldestSeconds = -1;  // since the oldest was raised; -1: unknown (none, or an older release's)
  long long bytesOnDisk = 0;     // the database, its WAL and its index together, and the guests' files
};

// Reads the outbox at `path`, and the guest files beside it, through
// read-only connections that take none of the engine's locks, change nothing
// and create no file beside it (no "-wal", "-shm" or journal), whether an
// engine has the outbox open or none does. A missing file holds nothing.
// Every file is first opened without following a symbolic link or waiting
// on a FIFO, and judged on its descriptor: a guest's name on anything but a
// regular file is not counted. False, with the reason in `error`, when the
// outbox is not a regular file or a file cannot be read.
bool readOutboxBacklog(const std::string& path, OutboxBacklog& backlog, std::string& error);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_OUTBOX_BACKLOG_H_
