#include "platform/standin/publisher/pending_events.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace standin {

PendingEvents::PendingEvents(size_t capacity) : m_capacity(capacity) { metrics::watchQueue(this); }

PendingEvents::~PendingEvents() { metrics::unwatchQueue(this); }

bool PendingEvents::full() const {
  port::MutexLock lock(m_mutex);
  return m_events.size() + m_held.size() >= m_capacity;
}

std::chrono::steady_clock::time_point acceptedAt(int64_t raised) {
  const auto now = std::chrono::steady_clock::now();
  if (raised <= 0) return now;
  const int64_t age = static_cast<int64_t>(std::time(nullptr)) - raised;
  return age > 0 ? now - std::chrono::seconds(age) : now;
}

bool PendingEvents::push(std::string payload, int64_t outboxId, Clock::time_point accepted) {
  port::MutexLock lock(m_mutex);
  if (outboxId == 0) ++m_memoryOnly;
  if (!m_holding) {
    const bool allTaken = m_handedOver == m_events.size();
    m_events.push_back(Event{std::move(payload), outboxId, 0, accepted});
    return allTaken;
  }
  if (m_firstHeldId == 0) m_firstHeldId = outboxId;
  m_held.push_back(Event{std::move(payload), outboxId, 0, accepted});
  return false;
}

void PendingEvents::holdForBacklog() {
  port::MutexLock lock(m_mutex);
  m_holding = true;
}

size_t PendingEvents::queueBacklog(const std::vector<StoredEvent>& page) {
  port::MutexLock lock(m_mutex);
  size_t queued = 0;
  for (const StoredEvent& event : page) {
    if (m_firstHeldId != 0 && event.id >= m_firstHeldId) break;  // held already, in the order pushed
    m_events.push_back(Event{event.payload, event.id, 0, acceptedAt(event.raised)});
    ++queued;
  }
  return queued;
}

void PendingEvents::storeHeldAgain(const std::function<int64_t(const std::string& payload)>& store) {
  port::MutexLock lock(m_mutex);
  m_firstHeldId = 0;
  for (Event& event : m_held) {
    if (event.outboxId == 0) --m_memoryOnly;
    event.outboxId = store(event.payload);
    if (event.outboxId == 0) ++m_memoryOnly;
    if (m_firstHeldId == 0) m_firstHeldId = event.outboxId;
  }
}

void PendingEvents::releaseHeld() {
  port::MutexLock lock(m_mutex);
  for (Event& event : m_held) m_events.push_back(std::move(event));
  std::vector<Event>().swap(m_held);
  m_firstHeldId = 0;
  m_holding = false;
}

bool PendingEvents::storeMemoryOnly(const std::function<int64_t(const std::string& payload)>& store) {
  port::MutexLock lock(m_mutex);
  if (m_holding) return m_memoryOnly == 0;
  for (auto event = m_events.begin(); m_memoryOnly > 0 && event != m_events.end(); ++event) {
    if (event->outboxId != 0) continue;
    event->outboxId = store(event->payload);
    if (event->outboxId == 0) return false;
    --m_memoryOnly;
  }
  return m_memoryOnly == 0;
}

size_t PendingEvents::memoryOnly() const {
  port::MutexLock lock(m_mutex);
  return m_memoryOnly;
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
      if (outboxId == 0) --m_memoryOnly;
      metrics::alertDelivered(Clock::now() - m_events[i].accepted);
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

bool PendingEvents::holdsStored() const {
  port::MutexLock lock(m_mutex);
  const auto stored = [](const Event& event) { return event.outboxId != 0; };
  return std::any_of(m_events.begin(), m_events.end(), stored) || std::any_of(m_held.begin(), m_held.end(), stored);
}

PendingEvents::Dropped PendingEvents::clear() {
  port::MutexLock lock(m_mutex);
  Dropped dropped{0, 0};
  for (const Event& event : m_events) countDropped(event, dropped);
  for (const Event& event : m_held) countDropped(event, dropped);
  m_events.clear();
  m_held.clear();
  m_handedOver = 0;
  m_memoryOnly = 0;
  return dropped;
}

void PendingEvents::countDropped(const Event& event, Dropped& dropped) {
  if (event.outboxId == 0) {
    ++dropped.inMemoryOnly;
    return;
  }
  ++dropped.inOutbox;
  if (m_leftInOutbox.count++ == 0 || event.accepted < m_leftInOutbox.oldest) m_leftInOutbox.oldest = event.accepted;
}

metrics::Waiting PendingEvents::waiting() const {
  port::MutexLock lock(m_mutex);
  metrics::Waiting waiting = m_leftInOutbox;
  // Each list is oldest first.
  const auto add = [&waiting](size_t count, const Event& first) {
    waiting.oldest = waiting.count == 0 ? first.accepted : std::min(waiting.oldest, first.accepted);
    waiting.count += count;
  };
  if (!m_events.empty()) add(m_events.size(), m_events.front());
  if (!m_held.empty()) add(m_held.size(), m_held.front());
  return waiting;
}

}  // namespace standin
