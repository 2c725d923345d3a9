// A stream of alerts into the outbox, appended, removed once "delivered" and
// checkpointed as the notification publisher does, in a process whose power
// is then cut (power_cut_vfs.h); and what that process told its parent
// before it ended.
#ifndef KSCDP_TESTS_STANDIN_OUTBOX_ALERT_STREAM_H_
#define KSCDP_TESTS_STANDIN_OUTBOX_ALERT_STREAM_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/standin/outbox/outbox.h"

namespace power_cut {

struct StreamPlan {
  std::string outboxPath;
  bool fullSync = false;
  uint64_t seed = 0;  // payload sizes, removals and every choice of the cut
  // The power goes before this write, truncation or sync of the outbox's
  // files (power_cut::Plan); 0: after the last alert, or at `cutAfter`.
  uint64_t cutBeforeOperation = 0;
  int alerts = 300;
  // A checkpoint every `appendsPerCheckpoint` appends; when 0, every
  // `checkpointInterval`, with alerts `pause` apart, as the publisher asks
  // for one. Either way also whenever the WAL passes its bound.
  int appendsPerCheckpoint = 25;
  std::chrono::milliseconds checkpointInterval{1000};
  std::chrono::microseconds pause{0};
  std::chrono::milliseconds cutAfter{0};  // a cut after this long instead of after `alerts`
};

struct Accepted {
  int64_t sequence;
  int64_t micros;  // since the stream began
};

struct StreamReport {
  std::vector<Accepted> accepted;  // whose append returned an id, in order
  std::set<int64_t> removed;       // whose removal began: the broker had them
  // Every alert up to this one had been accepted when a sync of the WAL
  // began; 0 when no sync did.
  int64_t durableThrough = 0;
  int64_t cutMicros = -1;
  uint64_t operations = 0;  // writes, truncations and syncs before the cut
  std::string failure;      // why the stream ended before its cut, if it did
};

// Runs the stream in this process, which must be a forked child that has
// opened no database, reporting to `reportFd`; then cuts the power. Never
// returns.
[[noreturn]] void runStream(const StreamPlan& plan, int reportFd);

// Opens the outbox at `path` as the publisher does; null, with the reason in
// `error`, when it cannot.
std::unique_ptr<standin::Outbox> openOutbox(std::string path, bool fullSync, std::string& error);

// What the stream's process reported through `reportFd` until it ended.
StreamReport readReport(int reportFd);

// The payload of alert `sequence`, padded by `padding` bytes, and back: -1
// for a payload that no stream wrote.
std::string alertPayload(int64_t sequence, size_t padding);
int64_t alertSequence(const std::string& payload);

}  // namespace power_cut

#endif  // KSCDP_TESTS_STANDIN_OUTBOX_ALERT_STREAM_H_
