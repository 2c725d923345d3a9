// The notification publisher's queue: events waiting for the broker.
#ifndef KSCDP_PLATFORM_STANDIN_PUBLISHER_PENDING_EVENTS_H_
#define KSCDP_PLATFORM_STANDIN_PUBLISHER_PENDING_EVENTS_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/standin/counters/metrics.h"
#include "platform/standin/outbox/stored_event.h"
#include "port/mutex.h"

namespace standin {

// When an event that the outbox says was raised at `raised` (seconds since
// the epoch, 0: unknown) was accepted, on the steady clock: so that a wait
// counts from the raise, across restarts. Now when unknown or later than now.
std::chrono::steady_clock::time_point acceptedAt(int64_t raised);

// Event payloads, oldest first, from the moment they are accepted until the
// broker has acknowledged them. Those handed over to the current connection
// are always the oldest ones and carry that connection's message id; when the
// connection goes they wait again in their place, so nothing is lost and the
// order holds. An event may also be stored, in the outbox or in the
// publisher's guest file, under its id there (its "outbox id"; 0: in memory
// only).
//
// What an earlier run left in the outbox goes first. While that backlog
// loads, events pushed are held back; the loader queues the backlog page by
// page up to the first event pushed meanwhile (it is in the outbox too, under
// a later id), then releaseHeld() queues the held events after it. A queue
// starts out holding.
//
// Thread-safe; handOver(), acknowledge(), takeBack(), clear() and the
// backlog's calls are for one thread, the connection's. A push and the
// outbox append that gave its id must not be separated by a queueBacklog():
// the caller holds one lock across each.
//
// While it lives, the queue is one of those the metrics file sums: an event
// counts as waiting from push() (a backlog's from when it is queued) to its
// acknowledgement, and as delivered (with the time it waited) at that. Events
// that clear() drops but the outbox keeps still count as waiting, for the
// next publisher to send.
class PendingEvents : public metrics::WaitingQueue {
 public:
  // Hands one payload to the connection; fills the message id and returns
  // true, or returns false when the connection refused it.
  using Publish = std::function<bool(const std::string& payload, int* messageId)>;
  using Clock = std::chrono::steady_clock;

  struct Dropped {
    size_t inOutbox;
    size_t inMemoryOnly;
  };

  // Throws std::bad_alloc when the metrics registry cannot take the queue.
  explicit PendingEvents(size_t capacity);
  ~PendingEvents();
  PendingEvents(const PendingEvents&) = delete;
  PendingEvents& operator=(const PendingEvents&) = delete;

  // True when `capacity` events are waiting, held ones included: push() and
  // queueBacklog() take events that were accepted anyway.
  bool full() const;
  // Queues an event accepted at `accepted`: now, or when the outbox says it
  // was raised (see acceptedAt()). True when the connection had taken every
  // earlier event: its thread, which may be waiting for work, is to be woken
  // to hand this one over. False while events are held back: the loader
  // queues them.
  bool push(std::string payload, int64_t outboxId, Clock::time_point accepted = Clock::now());

  // Holds pushed events back from now on, until releaseHeld().
  void holdForBacklog();
  // Queues `page`, the next events of the backlog, oldest first, up to the
  // first one that was pushed meanwhile. Returns how many it queued: fewer
  // than the page holds once the backlog has reached the pushed ones.
  size_t queueBacklog(const std::vector<StoredEvent>& page);
  // Stores the held events again, each under the id `store` gives it (the
  // outbox they were in was set aside).
  void storeHeldAgain(const std::function<int64_t(const std::string& payload)>& store);
  // Queues the held events after the backlog, and holds no more.
  void releaseHeld();
  // Stores the queued events that wait in memory only (outbox id 0), oldest
  // first, each under the id `store` gives it, until `store` cannot store one
  // (returns 0). True when no queued event waits in memory only then. While
  // a backlog loads it stores nothing: an id given meanwhile could put an
  // event in the backlog's pages too.
  bool storeMemoryOnly(const std::function<int64_t(const std::string& payload)>& store);
  // How many events, held ones included, wait in memory only.
  size_t memoryOnly() const;
  // Hands the oldest events not yet handed over to `publish`, in order, until
  // `window` events are handed over or `publish` refuses one.
  void handOver(size_t window, const Publish& publish);
  // The broker has the message with this id: its event is done. Returns the
  // event's outbox id, 0 when it has none (or no event has this message id).
  int64_t acknowledge(int messageId);
  // The connection is gone: every event handed over to it waits again.
  void takeBack();
  size_t size() const;
  // Whether any event waiting, held ones included, is stored (has an id
  // other than 0).
  bool holdsStored() const;
  // Since when the connection has owed an acknowledgement without giving
  // any: the later of the oldest handed-over event's hand-over and the last
  // acknowledgement. Empty while no event is handed over.
  std::optional<Clock::time_point> owedSince() const;
  // Drops every event, held ones included, and returns how many there were.
  Dropped clear();
  // How many events wait, and since when the oldest does.
  metrics::Waiting waiting() const override;

 private:
  struct Event {
    std::string payload;
    int64_t outboxId;
    int messageId;  // meaningful for the first m_handedOver events only
    Clock::time_point accepted;
  };

  // Counts an event that clear() drops.
  void countDropped(const Event& event, Dropped& dropped) REQUIRES(m_mutex);

  const size_t m_capacity;
  mutable port::Mutex m_mutex;
  std::deque<Event> m_events GUARDED_BY(m_mutex);
  size_t m_handedOver GUARDED_BY(m_mutex) = 0;          // m_events[0, m_handedOver) are with the connection
  metrics::Waiting m_leftInOutbox GUARDED_BY(m_mutex);  // those clear() dropped that the outbox keeps
  bool m_holding GUARDED_BY(m_mutex) = true;
  std::vector<Event> m_held GUARDED_BY(m_mutex);
  int64_t m_firstHeldId GUARDED_BY(m_mutex) = 0;  // of the first held event in the outbox; 0: none yet
  // When m_events[0] was handed over (meaningful while m_handedOver > 0):
  // events are handed over oldest first, so it is the oldest hand-over.
  Clock::time_point m_firstHandedOverAt GUARDED_BY(m_mutex);
  Clock::time_point m_lastAcknowledgedAt GUARDED_BY(m_mutex);
  size_t m_memoryOnly GUARDED_BY(m_mutex) = 0;  // events of m_events and m_held with outbox id 0
};

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_PUBLISHER_PENDING_EVENTS_H_
