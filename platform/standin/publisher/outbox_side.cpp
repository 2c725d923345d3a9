#include "platform/standin/publisher/outbox_side.h"

#include <new>
#include <thread>
#include <utility>

#include "platform/ksu_log.h"
#include "platform/standin/config/outbox_settings.h"
#include "platform/standin/publisher/publisher_log.h"

namespace standin {
namespace {

const size_t kMemoryCapacity = 10000;
const size_t kOutboxCapacity = 100000;
// Outbox events read at a time while the backlog loads.
const size_t kBacklogPage = 1000;

const std::chrono::seconds kCheckpointInterval(1);  // how far the outbox's disk copy may lag behind
const std::chrono::seconds kAdoptionInterval(1);    // how long a guest's event may wait for its owner
// Acknowledged events leave the outbox in batches: a removal is a commit
// that appends wait for. One that is lost only lets the next start deliver
// the event again, as an acknowledgement lost on the way would.
const std::chrono::milliseconds kRemovalInterval(100);
const size_t kRemovalBatch = 500;
// A removal that failed is tried again with the next batch, keeping at most
// this many ids; beyond, the next start sends those events again.
const size_t kRemovalsKept = 100000;
// Events that wait in memory only because the outbox failed a write are
// stored at this pace while it fails; at the stop, tried this often at most.
const std::chrono::milliseconds kStoreInterval(100);
const int kStoreAttemptsAtStop = 20;
const std::chrono::milliseconds kStorePauseAtStop(25);
const char kWaitForIt[] = "; alerts wait in memory and go into it once it can be used";

}  // namespace

OutboxSide::OutboxSide() : OutboxSide(openConfigured()) {}

OutboxSide::OutboxSide(Stores stores)
    : m_capacity(stores.outbox || stores.guest ? kOutboxCapacity : kMemoryCapacity),
      m_location(std::move(stores.location)),
      m_reopen(stores.retry),
      m_guest(std::move(stores.guest)),
      m_outbox(std::move(stores.outbox)) {}

OutboxSide::Stores OutboxSide::openConfigured() {
  Stores stores;
  std::string path;
  std::string error;
  stores.retry = true;  // until the outbox or a guest file is open, or none is wanted
  if (!readOutboxPath(path, error)) {
    logPublisherFailure("cannot tell where the outbox is: " + error + kWaitForIt);
    return stores;
  }
  if (path.empty()) {
    stores.retry = false;
    return stores;
  }
  if (!locateOutbox(path, stores.location, error)) {
    logPublisherFailure("cannot use the outbox " + path + ": " + error + kWaitForIt);
    return stores;
  }
  bool fullSync = true;
  if (!readOutboxSync(fullSync, error)) logPublisherFailure(error + "; every alert is synced to the disk meanwhile");
  bool ownedElsewhere = false;
  stores.outbox = Outbox::open(stores.location, fullSync, error, ownedElsewhere);
  stores.retry = !stores.outbox;
  if (stores.outbox) return stores;
  if (ownedElsewhere) {
    const std::string why = error;
    stores.guest = GuestOutbox::open(stores.location, fullSync, error);
    if (stores.guest) {
      stores.retry = false;  // the guest tries to take over all the same
      logPublisherProgress("the outbox " + path + " is not this process's (" + why + "): alerts are kept in " +
                           stores.guest->path() + " until the broker acknowledges them");
      return stores;
    }
  }
  // Tried again all the same, without a line: a file that failed to open
  // (an I/O error, a lock or memory refused) most often opens next time.
  logPublisherFailure("cannot use the outbox " + path + ": " + error + "; alerts wait in memory only");
  return stores;
}

OutboxSide::Stored OutboxSide::accept(std::string payload, PendingEvents& events) {
  port::MutexLock lock(m_mutex);
  if (events.full()) return Stored::kFull;
  // After those that wait in memory only, so that the outbox keeps the
  // order accepted; while they cannot be stored, this one waits with them.
  const int64_t storedId = m_outbox  ? (storeMemoryOnly(events) ? m_outbox->append(payload) : 0)
                           : m_guest ? m_guest->append(payload)
                                     : 0;
  const bool connectionIdle = events.push(std::move(payload), storedId);
  // Alerts faster than the network thread's turns must not let the WAL
  // outgrow its bound: that thread asks for the checkpoint.
  const bool checkpointDue = m_outbox && m_outbox->walPastBound();
  return connectionIdle || checkpointDue ? Stored::kQueuedWakeNetwork : Stored::kQueued;
}

std::string OutboxSide::whereStoredEventsWait() const {
  port::MutexLock lock(m_mutex);
  if (m_outbox) return "the outbox " + m_outbox->path() + " for the next start";
  return m_guest ? m_guest->path() + " for the outbox's owner" : std::string();
}

bool OutboxSide::ownsOutbox() const {
  port::MutexLock lock(m_mutex);
  return m_outbox != nullptr;
}

Outbox* OutboxSide::owned() const {
  port::MutexLock lock(m_mutex);
  return m_outbox.get();
}

void OutboxSide::startAfresh(std::string found, PendingEvents& events) {
  port::MutexLock lock(m_mutex);
  const std::string path = m_outbox->path();
  if (!m_outbox->startAfreshAsDamaged(found)) {
    // Not tried again: the damaged file would open, and fail the same way.
    logPublisherFailure("cannot use the outbox " + path + ": " + found + "; alerts wait in memory only");
    m_outbox.reset();
  }
  // What this publisher stored went with the damaged file: store it again.
  events.storeHeldAgain([this](const std::string& payload)
                            NO_THREAD_SAFETY_ANALYSIS { return m_outbox ? m_outbox->append(payload) : 0; });
}

void OutboxSide::loadBacklog(PendingEvents& events) {
  // The whole file is checked here rather than when it is opened, since
  // reading it all takes longer than an alert may wait.
  if (Outbox* outbox = owned()) {
    const std::string damage = outbox->checkWhole();
    if (!damage.empty()) startAfresh(damage, events);
  }
  // Pages are read without m_mutex, so that an alert raised meanwhile waits
  // for its own append only, and queued under it, which accept() holds
  // across its append and push. Only this process writes the outbox's
  // events: a row from the first id pushed meanwhile on is held.
  Outbox* const outbox = owned();
  size_t backlog = 0;
  for (int64_t last = 0; outbox != nullptr;) {
    const std::vector<Outbox::Event> page = outbox->waiting(last, kBacklogPage);
    port::MutexLock lock(m_mutex);
    const size_t queued = events.queueBacklog(page);
    backlog += queued;
    if (page.size() < kBacklogPage || queued < page.size()) break;
    last = page.back().id;
  }
  events.releaseHeld();
  if (backlog > 0) {
    logPublisherProgress(std::to_string(backlog) + " events waiting in the outbox " + outbox->path() + " go out first");
  }
}

void OutboxSide::takeOverWhenFree(Clock::time_point now, bool stopping, PendingEvents& events) {
  bool wasGuest = false;
  {
    port::MutexLock lock(m_mutex);
    wasGuest = m_guest != nullptr;
  }
  if (!wasGuest && !m_reopen) return;
  // A guest that is stopping tries at once: its events then go out within
  // the grace, rather than waiting for the next owner.
  if (!stopping && now < m_nextAdoption) return;
  m_nextAdoption = now + kAdoptionInterval;
  if (events.holdsStored()) return;
  removeAcknowledged();
  std::string error;
  if (!m_location.directory) {  // the configuration or the directory failed when the side opened
    std::string path;
    if (!readOutboxPath(path, error) || path.empty() || !locateOutbox(path, m_location, error)) return;
  }
  bool fullSync = true;
  bool ownedElsewhere = false;
  readOutboxSync(fullSync, error);
  // The outbox beside the guest file, through the directory checked when
  // the guest file was opened.
  std::unique_ptr<Outbox> outbox = Outbox::open(m_location, fullSync, error, ownedElsewhere);
  if (!outbox) return;  // still another's, or not usable: the guest file serves meanwhile
  {
    // Alerts wait meanwhile, so that none goes to the guest file after its
    // last events were moved out of it.
    port::MutexLock lock(m_mutex);
    // One accepted since the look above is in the guest file, under its id
    // there: the guest file serves until that one is acknowledged.
    if (events.holdsStored()) return;
    m_guest.reset();
    outbox->adoptGuests(false);
    m_outbox = std::move(outbox);
    events.holdForBacklog();
  }
  m_reopen = false;
  logPublisherProgress("the outbox " + m_location.path() +
                       (wasGuest ? " is this process's now: its events go out from here"
                                 : " can be used now: alerts that waited in memory go into it"));
  loadBacklog(events);
  port::MutexLock lock(m_mutex);
  storeMemoryOnly(events);
}

bool OutboxSide::storeMemoryOnly(PendingEvents& events) {
  if (!m_outbox) return false;
  return events.storeMemoryOnly([this](const std::string& payload)
                                    NO_THREAD_SAFETY_ANALYSIS { return m_outbox->append(payload); });
}

void OutboxSide::storeBeforeClosing(PendingEvents& events) {
  events.releaseHeld();  // a thread that ended while a backlog loaded held them
  for (int attempt = 0; attempt < kStoreAttemptsAtStop && events.memoryOnly() > 0; ++attempt) {
    if (attempt > 0) std::this_thread::sleep_for(kStorePauseAtStop);
    port::MutexLock lock(m_mutex);
    try {
      if (!m_outbox || storeMemoryOnly(events)) return;
    } catch (const std::bad_alloc&) {
      // Short of memory for a log line: tried again like a failed write.
    }
  }
}

void OutboxSide::adopt(Outbox& outbox, bool liveToo, PendingEvents& events) {
  std::vector<Outbox::Event> adopted = outbox.adoptGuests(liveToo);
  port::MutexLock lock(m_mutex);
  for (Outbox::Event& event : adopted) events.push(std::move(event.payload), event.id, acceptedAt(event.raised));
}

void OutboxSide::takeInLiveGuests(PendingEvents& events) {
  if (m_liveGuestsTaken) return;
  m_liveGuestsTaken = true;
  if (Outbox* outbox = owned()) adopt(*outbox, true, events);
}

void OutboxSide::tidy(Clock::time_point now, PendingEvents& events) {
  if (now >= m_nextRemoval || (m_acknowledged.size() >= kRemovalBatch && !m_removalFailed)) {
    removeAcknowledged();
    m_nextRemoval = now + kRemovalInterval;
  }
  Outbox* const outbox = owned();
  if (outbox == nullptr) return;
  if (now >= m_nextStore && events.memoryOnly() > 0) {
    port::MutexLock lock(m_mutex);
    storeMemoryOnly(events);
    m_nextStore = now + kStoreInterval;
  }
  if (now >= m_nextAdoption) {
    adopt(*outbox, false, events);
    m_nextAdoption = now + kAdoptionInterval;
  }
  if (now < m_nextCheckpoint && !outbox->walPastBound()) return;
  outbox->requestCheckpoint();
  m_nextCheckpoint = now + kCheckpointInterval;
}

void OutboxSide::acknowledged(int64_t outboxId) {
  if (outboxId != 0) m_acknowledged.push_back(outboxId);
}

void OutboxSide::removeAcknowledged() {
  if (Outbox* outbox = owned()) {
    m_removalFailed = !outbox->remove(m_acknowledged);
    // Kept for the next removal, up to a bound: a removal that keeps failing
    // sends those events again at the next start, never loses one.
    if (m_removalFailed && m_acknowledged.size() < kRemovalsKept) return;
  } else {
    port::MutexLock lock(m_mutex);  // a guest file's removals are short: one process's few events
    if (m_guest) m_guest->remove(m_acknowledged);
  }
  m_acknowledged.clear();
}

void OutboxSide::close() {
  port::MutexLock lock(m_mutex);
  m_outbox.reset();
  m_guest.reset();
}

void OutboxSide::holdForFork() NO_THREAD_SAFETY_ANALYSIS {
  m_mutex.lock();
  if (m_outbox) m_outbox->holdForFork();
}

void OutboxSide::releaseAfterFork(bool inChild) NO_THREAD_SAFETY_ANALYSIS {
  if (m_outbox) m_outbox->releaseAfterFork(inChild);
  m_mutex.unlock();
}

}  // namespace standin
