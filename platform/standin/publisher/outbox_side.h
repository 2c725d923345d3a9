// The publisher's side of the outbox: where accepted events are stored, the
// backlog an earlier run left there, and the housekeeping while events flow.
#ifndef KSCDP_PLATFORM_STANDIN_PUBLISHER_OUTBOX_SIDE_H_
#define KSCDP_PLATFORM_STANDIN_PUBLISHER_OUTBOX_SIDE_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/standin/outbox/guest.h"
#include "platform/standin/outbox/location.h"
#include "platform/standin/outbox/outbox.h"
#include "platform/standin/publisher/pending_events.h"
#include "port/mutex.h"
#include "port/thread_role.h"

namespace standin {

// Stores each event the publisher accepts, and queues it to be sent from
// here: in the outbox the configuration names when this process owns it, in
// this process's guest file beside it while another process does (what is
// left there when this process ends, the owner sends), in memory only
// without one. A guest becomes the owner once the outbox is free and its
// guest file owes nothing. An outbox that cannot be opened is tried again
// every second, and one that fails a write at the next event: meanwhile
// events wait in memory, and go into it in the order accepted once it takes
// writes, at the latest at the stop. The owner queues what an earlier run
// left in the outbox before what is accepted meanwhile, takes in what guests
// that are gone stored, and what live ones hold when it stops, removes
// acknowledged events in batches and asks for the outbox's checkpoints.
// Failures are logged at level 16 under "NotificationSupplier".
//
// The rule: m_mutex guards which store is in use, and is held across each
// store and the push of the same events onto the publisher's queue (accept(),
// a backlog page, adopted events), so that the queue's order follows the
// outbox's ids. The network thread, the keeper, is the only one that replaces
// a store; it does so under m_mutex, and may keep using the outbox it read
// under m_mutex once it has let go, for the long reads (the backlog, the
// check, adoption) and removals that appends may overlap. The acknowledged
// batch and the housekeeping clocks are the keeper's alone.
//
// Lock order: the publisher's own lock, then m_mutex, then the queue's and
// the outbox's locks.
class OutboxSide {
 public:
  using Clock = PendingEvents::Clock;

  enum class Stored {
    kQueued,  // on `events`, and in the outbox or the guest file when there is one
    // As kQueued, and the network thread has work at once: the connection
    // had taken every earlier event, or the outbox wants a checkpoint.
    kQueuedWakeNetwork,
    kFull,  // refused: capacity() events are waiting
  };

  // Opens the store the configuration names (logged unless it is "none").
  OutboxSide();
  OutboxSide(const OutboxSide&) = delete;
  OutboxSide& operator=(const OutboxSide&) = delete;

  // How many events may wait, fixed when the side opens: more with an
  // outbox or a guest file, where they wait on disk.
  size_t capacity() const { return m_capacity; }
  // Stores `payload` and queues it on `events`, or refuses it. Thread-safe.
  Stored accept(std::string payload, PendingEvents& events) EXCLUDES(m_mutex);
  // Where stored events wait once this publisher has stopped, for a log
  // line: "the outbox <path> for the next start", or "<guest file> for the
  // outbox's owner". Thread-safe.
  std::string whereStoredEventsWait() const EXCLUDES(m_mutex);
  // Whether this process owns an outbox; allocates nothing. Thread-safe.
  bool ownsOutbox() const EXCLUDES(m_mutex);

  // The keeper's role: the network thread claims it where it starts.
  const port::ThreadRole& keeper() const RETURN_CAPABILITY(m_keeper) { return m_keeper; }

  // Checks the whole outbox (one that is damaged starts afresh) and queues
  // its backlog on `events`, then what was pushed meanwhile; the queue holds
  // pushed events back until then.
  void loadBacklog(PendingEvents& events) REQUIRES(m_keeper) EXCLUDES(m_mutex);
  // A guest tries every second, and at once when `stopping`, to become the
  // outbox's owner once its guest file owes nothing (its ids there are no
  // outbox's), and so does a side whose outbox could not be opened: it opens
  // the outbox, moves its guest file's events in, loads the backlog and
  // stores what waited in memory meanwhile. Does nothing for an owner.
  void takeOverWhenFree(Clock::time_point now, bool stopping, PendingEvents& events) REQUIRES(m_keeper)
      EXCLUDES(m_mutex);
  // An owner's housekeeping, at every turn of the network loop: stores what
  // waits in memory only (every 100 ms), adopts what guests that are gone
  // stored (each second), removes the acknowledged batch (kept for the next
  // removal when this one fails), and asks for a checkpoint when one is due.
  void tidy(Clock::time_point now, PendingEvents& events) REQUIRES(m_keeper) EXCLUDES(m_mutex);
  // An owner that stops takes in what live guests hold, so that it goes out
  // with its own or waits in the outbox; once, the later calls do nothing.
  // Does nothing for a guest.
  void takeInLiveGuests(PendingEvents& events) REQUIRES(m_keeper) EXCLUDES(m_mutex);
  // The broker acknowledged the event stored under `outboxId` (0: none).
  void acknowledged(int64_t outboxId) REQUIRES(m_keeper);
  // Removes the acknowledged batch now: the network thread is ending.
  void removeAcknowledged() REQUIRES(m_keeper) EXCLUDES(m_mutex);
  // Stores what still waits in memory only on `events`, trying a failing
  // outbox again for about half a second. Once the network thread has ended,
  // before the queue is cleared.
  void storeBeforeClosing(PendingEvents& events) EXCLUDES(m_mutex);
  // Closes the outbox and the guest file; events accepted later wait in
  // memory only. Once the network thread has ended.
  void close() EXCLUDES(m_mutex);

  // Around fork(): holds every store still in the forking thread, then lets
  // go of them (in a child, without touching the parent's outbox).
  void holdForFork() ACQUIRE(m_mutex);
  void releaseAfterFork(bool inChild) RELEASE(m_mutex);

 private:
  struct Stores {
    OutboxLocation location;
    std::unique_ptr<GuestOutbox> guest;
    std::unique_ptr<Outbox> outbox;
    bool retry = false;  // the outbox could not be located or opened: try again
  };
  // The stores the configuration names: the outbox, or null (logged unless
  // it is "none"); when another process owns it, this process's guest file
  // beside it instead, and the location keeps its checked directory.
  static Stores openConfigured();
  explicit OutboxSide(Stores stores);

  // The outbox this process owns, or null; the keeper's to use after the
  // lock is let go.
  Outbox* owned() const REQUIRES(m_keeper) EXCLUDES(m_mutex);
  // Moves what guests stored into `outbox` (live ones' too with `liveToo`)
  // and queues it.
  void adopt(Outbox& outbox, bool liveToo, PendingEvents& events) REQUIRES(m_keeper) EXCLUDES(m_mutex);
  // A damaged outbox starts afresh; what the queue holds back is stored again.
  void startAfresh(std::string found, PendingEvents& events) REQUIRES(m_keeper) EXCLUDES(m_mutex);
  // Stores the events of `events` that wait in memory only in the outbox,
  // oldest first. True when none is left in memory only; false also without
  // an outbox.
  bool storeMemoryOnly(PendingEvents& events) REQUIRES(m_mutex);

  const size_t m_capacity;
  port::ThreadRole m_keeper;
  // Where the outbox and the guest file live: set when the side opens, or by
  // the keeper once it can be when that failed.
  OutboxLocation m_location GUARDED_BY(m_keeper);
  bool m_reopen GUARDED_BY(m_keeper);  // the outbox could not be opened: the keeper tries again
  mutable port::Mutex m_mutex;
  std::unique_ptr<GuestOutbox> m_guest GUARDED_BY(m_mutex);
  std::unique_ptr<Outbox> m_outbox GUARDED_BY(m_mutex);
  std::vector<int64_t> m_acknowledged GUARDED_BY(m_keeper);  // stored ids, removed in batches
  bool m_removalFailed GUARDED_BY(m_keeper) = false;         // the batch waits for the next turn
  bool m_liveGuestsTaken GUARDED_BY(m_keeper) = false;       // at the stop, once
  Clock::time_point m_nextStore GUARDED_BY(m_keeper);        // of what waits in memory only
  Clock::time_point m_nextRemoval GUARDED_BY(m_keeper);
  Clock::time_point m_nextCheckpoint GUARDED_BY(m_keeper);
  Clock::time_point m_nextAdoption GUARDED_BY(m_keeper);
};

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_PUBLISHER_OUTBOX_SIDE_H_
