#include "pending_events.h"

#include <algorithm>
#include <utility>

namespace standin {

PendingEvents::PendingEvents(size_t capacity) : m_capacity(capacity) {}

bool PendingEvents::full() const {
  port::MutexLock lock(m_mutex);
  return m_events.size() >= m_capacity;
}

void PendingEvents::push(std::string payload, int64_t outboxId) {
  port::MutexLock lock(m_mutex);
  m_events.push_back(Event{std::move(payload), outboxId, 0});
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
    if (m_handedOver == 0) m_firstHandedOverAt = Clock::now();
    m_events[m_handedOver].messageId = messageId;
    ++m_handedOver;
  }
}

int64_t PendingEvents::acknowledge(int messageId) {
  port::MutexLock lock(m_mutex);
  for (size_t i = 0; i < m_handedOver; ++i) {
    if (m_events[i].messageId == messageId) {
      const int64_t outboxId = m_events[i].outboxId;
      m_events.erase(m_events.begin() + static_cast<std::ptrdiff_t>(i));
      --m_handedOver;
      m_lastAcknowledgedAt = Clock::now();
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

std::optional<PendingEvents::Clock::time_point> PendingEvents::owedSince() const {
  port::MutexLock lock(m_mutex);
  if (m_handedOver == 0) return std::nullopt;
  return std::max(m_firstHandedOverAt, m_lastAcknowledgedAt);
}

PendingEvents::Dropped PendingEvents::clear() {
  port::MutexLock lock(m_mutex);
  Dropped dropped{0, 0};
  for (const Event& event : m_events) ++(event.outboxId != 0 ? dropped.inOutbox : dropped.inMemoryOnly);
  m_events.clear();
  m_handedOver = 0;
  return dropped;
}

}  // namespace standin
