#include "standin/outbox/alert_stream.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <deque>
#include <memory>
#include <random>
#include <thread>
#include <utility>

#include "platform/standin/outbox/descriptor_vfs.h"
#include "platform/standin/outbox/location.h"
#include "standin/outbox/power_cut_vfs.h"

namespace power_cut {
namespace {

using Clock = std::chrono::steady_clock;

// One report, written whole: it is shorter than PIPE_BUF.
struct Message {
  enum Kind : int64_t { kAccepted, kRemoving, kDurable, kCut, kFailed } kind;
  int64_t first;
  int64_t second;
};

// The child's side. The VFS calls back with its lock held, from whichever
// thread reached it.
int g_reportFd = -1;
Clock::time_point g_start;
std::atomic<int64_t> g_accepted{0};
std::atomic<int64_t> g_durableThrough{0};

int64_t microsSinceStart() {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - g_start).count();
}

void send(Message::Kind kind, int64_t first, int64_t second) {
  const Message message{kind, first, second};
  while (write(g_reportFd, &message, sizeof message) < 0 && errno == EINTR) {
  }
}

[[noreturn]] void fail(const char* why) {
  send(Message::kFailed, 0, 0);
  std::fprintf(stderr, "alert stream: %s\n", why);
  _exit(3);
}

bool isWal(const std::string& path) { return path.size() > 4 && path.compare(path.size() - 4, 4, "-wal") == 0; }

void afterSync(const char* path) {
  if (!isWal(path)) return;
  g_durableThrough = g_accepted.load();
}

void atCut(uint64_t operations) {
  send(Message::kDurable, g_durableThrough, 0);
  send(Message::kCut, static_cast<int64_t>(operations), microsSinceStart());
}

// Removes a run of the oldest stored alerts now and then, as acknowledgements
// do, the whole backlog at times, so that the outbox drains and shrinks.
void deliverSome(standin::Outbox& outbox, std::deque<std::pair<int64_t, int64_t>>& stored, std::mt19937_64& random) {
  if (stored.empty() || random() % 20 != 0) return;
  const size_t count = 1 + random() % stored.size();
  std::vector<int64_t> ids;
  for (size_t i = 0; i < count; ++i) {
    send(Message::kRemoving, stored.front().first, 0);
    ids.push_back(stored.front().second);
    stored.pop_front();
  }
  outbox.remove(ids);
}

}  // namespace

void runStream(const StreamPlan& plan, int reportFd) {
  g_reportFd = reportFd;
  g_start = Clock::now();
  Plan cut;
  cut.seed = plan.seed;
  cut.cutBeforeOperation = plan.cutBeforeOperation;
  cut.afterSync = &afterSync;
  cut.atCut = &atCut;
  if (!install(cut)) fail("SQLite refused the power-cut VFS");
  // The outbox's own VFS, inherited from the parent over the default VFS of
  // then, is made again over this one: no connection is open.
  standin::releaseDescriptorVfs();
  std::string error;
  std::unique_ptr<standin::Outbox> outbox = openOutbox(plan.outboxPath, plan.fullSync, error);
  if (!outbox) fail(("cannot open the outbox: " + error).c_str());
  std::mt19937_64 random(plan.seed ^ 0x5deece66dULL);
  std::deque<std::pair<int64_t, int64_t>> stored;  // alert and outbox id, oldest first
  Clock::time_point nextCheckpoint = g_start + plan.checkpointInterval;
  const bool timed = plan.cutAfter.count() > 0;
  // A timed stream ends at its cut; the bound only keeps it finite.
  const int64_t last = timed ? 1000000 : plan.alerts;
  for (int64_t sequence = 1; sequence <= last; ++sequence) {
    if (timed && Clock::now() - g_start >= plan.cutAfter) break;
    const int64_t id = outbox->append(alertPayload(sequence, random() % 2000));
    if (id == 0) fail("an append failed");
    g_accepted = sequence;
    send(Message::kAccepted, sequence, microsSinceStart());
    stored.emplace_back(sequence, id);
    deliverSome(*outbox, stored, random);
    const bool due =
        plan.appendsPerCheckpoint > 0 ? sequence % plan.appendsPerCheckpoint == 0 : Clock::now() >= nextCheckpoint;
    if (due || outbox->walPastBound()) {
      outbox->requestCheckpoint();
      nextCheckpoint = Clock::now() + plan.checkpointInterval;
    }
    if (plan.pause.count() > 0) std::this_thread::sleep_for(plan.pause);
  }
  power_cut::cut();
}

std::unique_ptr<standin::Outbox> openOutbox(std::string path, bool fullSync, std::string& error) {
  standin::OutboxLocation location;
  bool ownedElsewhere = false;
  if (!standin::locateOutbox(path, location, error)) return nullptr;
  return standin::Outbox::open(location, fullSync, error, ownedElsewhere);
}

StreamReport readReport(int reportFd) {
  StreamReport report;
  Message message{};
  for (;;) {
    const ssize_t got = read(reportFd, &message, sizeof message);
    if (got < 0 && errno == EINTR) continue;
    if (got != static_cast<ssize_t>(sizeof message)) break;
    switch (message.kind) {
      case Message::kAccepted: report.accepted.push_back({message.first, message.second}); break;
      case Message::kRemoving: report.removed.insert(message.first); break;
      case Message::kDurable: report.durableThrough = message.first; break;
      case Message::kCut:
        report.operations = static_cast<uint64_t>(message.first);
        report.cutMicros = message.second;
        break;
      case Message::kFailed: report.failure = "the stream failed (its stderr says why)"; break;
    }
  }
  if (report.cutMicros < 0 && report.failure.empty()) report.failure = "the stream ended before its cut";
  return report;
}

std::string alertPayload(int64_t sequence, size_t padding) {
  return "{\"alert\":" + std::to_string(sequence) + ",\"padding\":\"" + std::string(padding, 'p') + "\"}";
}

int64_t alertSequence(const std::string& payload) {
  long long sequence = -1;
  char after = 0;
  if (std::sscanf(payload.c_str(), "{\"alert\":%lld,\"padding\":\"%c", &sequence, &after) != 2) return -1;
  return sequence;
}

}  // namespace power_cut
