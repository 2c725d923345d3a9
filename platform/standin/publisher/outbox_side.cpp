// The publisher's side of the outbox: which one it uses, the backlog an
// earlier run left there, and its housekeeping while events flow.
#include <string>
#include <vector>

#include "platform/ksu_log.h"
#include "platform/standin/config/outbox_settings.h"
#include "platform/standin/publisher/mqtt_publisher.h"

namespace standin {
namespace {

const std::chrono::seconds kCheckpointInterval(1);  // how far the outbox's disk copy may lag behind
const std::chrono::seconds kAdoptionInterval(1);    // how long a guest's event may wait for its owner
// Acknowledged events leave the outbox in batches: a removal is a commit
// that appends wait for. One that is lost only lets the next start deliver
// the event again, as an acknowledgement lost on the way would.
const std::chrono::milliseconds kRemovalInterval(100);
const size_t kRemovalBatch = 500;

const char kLogFunction[] = "NotificationSupplier";

void logFailure(const std::string& message) { ksu_logmsg_str(FAILURE_LEVEL, kLogFunction, message); }

}  // namespace

// The outbox the configuration names, or null (logged unless it is "none").
// When another process owns it, `guest` gets this process's guest file
// beside it instead, and `location` keeps its checked directory.
std::unique_ptr<Outbox> MqttPublisher::openOutbox(OutboxLocation& location, std::unique_ptr<GuestOutbox>& guest) {
  std::string path;
  std::string error;
  if (!readOutboxPath(path, error)) {
    logFailure("cannot tell where the outbox is: " + error + "; alerts wait in memory only");
    return nullptr;
  }
  if (path.empty()) return nullptr;
  if (!locateOutbox(path, location, error)) {
    logFailure("cannot use the outbox " + path + ": " + error + "; alerts wait in memory only");
    return nullptr;
  }
  bool fullSync = true;
  if (!readOutboxSync(fullSync, error)) logFailure(error + "; every alert is synced to the disk meanwhile");
  bool ownedElsewhere = false;
  std::unique_ptr<Outbox> outbox = Outbox::open(location, fullSync, error, ownedElsewhere);
  if (outbox) return outbox;
  if (ownedElsewhere) {
    const std::string why = error;
    guest = GuestOutbox::open(location, fullSync, error);
    if (guest) {
      ksu_logmsg_str(PROGRESS_LEVEL, kLogFunction,
                     "the outbox " + path + " is not this process's (" + why + "): alerts wait in " + guest->path() +
                         " until its owner sends them");
      return nullptr;
    }
  }
  logFailure("cannot use the outbox " + path + ": " + error + "; alerts wait in memory only");
  return nullptr;
}

void MqttPublisher::startOutboxAfresh(std::string found) {
  port::MutexLock lock(m_controlMutex);
  const std::string path = m_outbox->path();
  if (!m_outbox->startAfreshAsDamaged(found)) {
    logFailure("cannot use the outbox " + path + ": " + found + "; alerts wait in memory only");
    m_outbox.reset();
  }
  // What this publisher stored went with the damaged file: store it again.
  m_events.storeHeldAgain([this](const std::string& payload)
                              NO_THREAD_SAFETY_ANALYSIS { return m_outbox ? m_outbox->append(payload) : 0; });
}

void MqttPublisher::loadBacklog() {
  // The whole file is checked here rather than when it is opened, since
  // reading it all takes longer than an alert may wait.
  if (m_outbox) {
    const std::string damage = m_outbox->checkWhole();
    if (!damage.empty()) startOutboxAfresh(damage);
  }
  // Pages are read without the control lock, so that an alert raised
  // meanwhile waits for its own append only, and queued under it, which
  // publish() holds across its append and push. Only this process writes the
  // outbox's events: a row from the first id pushed meanwhile on is held.
  size_t backlog = 0;
  for (int64_t last = 0; m_outbox;) {
    const std::vector<Outbox::Event> page = m_outbox->waiting(last, kBacklogPage);
    port::MutexLock lock(m_controlMutex);
    const size_t queued = m_events.queueBacklog(page);
    backlog += queued;
    if (page.size() < kBacklogPage || queued < page.size()) break;
    last = page.back().id;
  }
  m_events.releaseHeld();
  if (backlog > 0) {
    ksu_logmsg_str(PROGRESS_LEVEL, kLogFunction,
                   std::to_string(backlog) + " events waiting in the outbox " + m_outbox->path() + " go out first");
  }
}

void MqttPublisher::takeOverOutbox(Clock::time_point now) {
  m_nextAdoption = now + kAdoptionInterval;
  std::string error;
  bool fullSync = true;
  bool ownedElsewhere = false;
  readOutboxSync(fullSync, error);
  // The outbox beside the guest file, through the directory checked when
  // the guest file was opened.
  std::unique_ptr<Outbox> outbox = Outbox::open(m_outboxLocation, fullSync, error, ownedElsewhere);
  if (!outbox) return;  // still another's, or not usable: the guest file serves meanwhile
  {
    // Alerts wait meanwhile, so that none goes to the guest file after its
    // last events were moved out of it.
    port::MutexLock lock(m_controlMutex);
    m_guest.reset();
    outbox->adoptGuests();
    m_outbox = std::move(outbox);
    m_events.holdForBacklog();
  }
  ksu_logmsg_str(PROGRESS_LEVEL, kLogFunction,
                 "the outbox " + m_outboxLocation.path() + " is this process's now: its events go out from here");
  loadBacklog();
}

void MqttPublisher::tidyOutbox(Clock::time_point now) {
  if (!m_outbox) return;
  if (now >= m_nextAdoption) {
    std::vector<Outbox::Event> adopted = m_outbox->adoptGuests();
    port::MutexLock lock(m_controlMutex);
    for (Outbox::Event& event : adopted) m_events.push(std::move(event.payload), event.id, acceptedAt(event.raised));
    m_nextAdoption = now + kAdoptionInterval;
  }
  if (now >= m_nextRemoval || m_acknowledged.size() >= kRemovalBatch) {
    m_outbox->remove(m_acknowledged);
    m_acknowledged.clear();
    m_nextRemoval = now + kRemovalInterval;
  }
  if (now < m_nextCheckpoint && !m_outbox->walPastBound()) return;
  m_outbox->requestCheckpoint();
  m_nextCheckpoint = now + kCheckpointInterval;
}

}  // namespace standin
