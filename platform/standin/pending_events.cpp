#include "pending_events.h"

#include <algorithm>
#include <utility>

namespace standin {

PendingEvents::PendingEvents(size_t capacity) : m_capacity(capacity) { metrics::watchQueue(this); }

PendingEvents::~PendingEvents() { metrics::unwatchQueue(this); }

bool PendingEvents::full() const {
  port::MutexLock lock(m_mutex);
  return m_events.size() >= m_capacity;
}

void PendingEvents::push(std::string payload, int64_t outboxId) {
  port::MutexLock lock(m_mutex);
  m_events.push_back(Event{std::move(payload), outboxId, 0, Clock::now()});
}

void PendingEvents::handOver(size_t window, const Publish& publish) {
  for (;;) {
    const Event* next = nullptr;
    {
      port::MutexLock lock(m_mutex);
      if (m_handedOver >= window || m_handedOver >= m_events.size()) return;
      next = &m_events[m_handedOver];
    }
    // The connection gets the payload with no lock held: it takes locks of
    // its own, inside which it calls acknowledge(). `next` stays valid: only
    // the caller's thread removes events, and push() appends without moving
    // the others.
    int messageId = 0;
    if (!publish(next->payload, &messageId)) return;
    port::MutexLock lock(m_mutex);
    m_events[m_handedOver].messageId = messageId;
    ++m_handedOver;
  }
}

int64_t PendingEvents::acknowledge(int messageId) {
  port::MutexLock lock(m_mutex);
  for (size_t i = 0; i < m_handedOver; ++i) {
    if (m_events[i].messageId == messageId) {
      const int64_t outboxId = m_events[i].outboxId;
      metrics::alertDelivered(Clock::now() - m_events[i].accepted);
      m_events.erase(m_events.begin() + static_cast<std::ptrdiff_t>(i));
      --m_handedOver;
      return outboxId;
    }
  }
  return 0;
}

void PendingEvents::takeBack() {
  port::MutexLock lock(m_mutex);
  m_handedOver = 0;
}

size_t PendingEvents::size() const {
  port::MutexLock lock(m_mutex);
  return m_events.size();
}

PendingEvents::Dropped PendingEvents::clear() {
  port::MutexLock lock(m_mutex);
  Dropped dropped{0, 0};
  for (const Event& event : m_events) {
    if (event.outboxId == 0) {
      ++dropped.inMemoryOnly;
      continue;
    }
    if (dropped.inOutbox++ == 0 && m_leftInOutbox.count == 0) m_leftInOutbox.oldest = event.accepted;
  }
  m_leftInOutbox.count += dropped.inOutbox;
  m_events.clear();
  m_handedOver = 0;
  return dropped;
}

metrics::Waiting PendingEvents::waiting() const {
  port::MutexLock lock(m_mutex);
  metrics::Waiting waiting = m_leftInOutbox;
  if (m_events.empty()) return waiting;
  const Clock::time_point oldest = m_events.front().accepted;
  waiting.oldest = waiting.count == 0 ? oldest : std::min(waiting.oldest, oldest);
  waiting.count += m_events.size();
  return waiting;
}

}  // namespace standin
