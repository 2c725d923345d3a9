// The notification publisher's queue: events waiting for the broker.
#ifndef KSCDP_PLATFORM_STANDIN_PENDING_EVENTS_H_
#define KSCDP_PLATFORM_STANDIN_PENDING_EVENTS_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "port/mutex.h"

namespace standin {

// Event payloads, oldest first, from the moment they are accepted until the
// broker has acknowledged them. Those handed over to the current connection
// are always the oldest ones and carry that connection's message id; when the
// connection goes they wait again in their place, so nothing is lost and the
// order holds. An event may also be in the outbox, under its outbox id (0:
// in memory only). Thread-safe; handOver(), acknowledge(), takeBack() and
// clear() are for one thread, the connection's.
class PendingEvents {
 public:
  // Hands one payload to the connection; fills the message id and returns
  // true, or returns false when the connection refused it.
  using Publish = std::function<bool(const std::string& payload, int* messageId)>;
  using Clock = std::chrono::steady_clock;

  struct Dropped {
    size_t inOutbox;
    size_t inMemoryOnly;
  };

  explicit PendingEvents(size_t capacity);

  // True when `capacity` events are waiting: push() is for events that were
  // accepted anyway (those the outbox kept from an earlier run).
  bool full() const;
  void push(std::string payload, int64_t outboxId);
  // Hands the oldest events not yet handed over to `publish`, in order, until
  // `window` events are handed over or `publish` refuses one.
  void handOver(size_t window, const Publish& publish);
  // The broker has the message with this id: its event is done. Returns the
  // event's outbox id, 0 when it has none (or no event has this message id).
  int64_t acknowledge(int messageId);
  // The connection is gone: every event handed over to it waits again.
  void takeBack();
  size_t size() const;
  // Since when the connection has owed an acknowledgement without giving
  // any: the later of the oldest handed-over event's hand-over and the last
  // acknowledgement. Empty while no event is handed over.
  std::optional<Clock::time_point> owedSince() const;
  // Drops every event and returns how many there were.
  Dropped clear();

 private:
  struct Event {
    std::string payload;
    int64_t outboxId;
    int messageId;  // meaningful for the first m_handedOver events only
  };

  const size_t m_capacity;
  mutable port::Mutex m_mutex;
  std::deque<Event> m_events GUARDED_BY(m_mutex);
  size_t m_handedOver GUARDED_BY(m_mutex) = 0;  // m_events[0, m_handedOver) are with the connection
  // When m_events[0] was handed over (meaningful while m_handedOver > 0):
  // events are handed over oldest first, so it is the oldest hand-over.
  Clock::time_point m_firstHandedOverAt GUARDED_BY(m_mutex);
  Clock::time_point m_lastAcknowledgedAt GUARDED_BY(m_mutex);
};

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_PENDING_EVENTS_H_
