#include "pending_events.h"

#include <utility>

namespace standin {

PendingEvents::PendingEvents(size_t capacity) : capacity_(capacity) {}

bool PendingEvents::full() const {
  port::MutexLock lock(mutex_);
  return events_.size() >= capacity_;
}

void PendingEvents::push(std::string payload, int64_t outboxId) {
  port::MutexLock lock(mutex_);
  events_.push_back(Event{std::move(payload), outboxId, 0});
}

void PendingEvents::handOver(size_t window, const Publish& publish) {
  for (;;) {
    const Event* next = nullptr;
    {
      port::MutexLock lock(mutex_);
      if (handedOver_ >= window || handedOver_ >= events_.size()) return;
      next = &events_[handedOver_];
    }
    // The connection gets the payload with no lock held: it takes locks of
    // its own, inside which it calls acknowledge(). `next` stays valid: only
    // the caller's thread removes events, and push() appends without moving
    // the others.
    int messageId = 0;
    if (!publish(next->payload, &messageId)) return;
    port::MutexLock lock(mutex_);
    events_[handedOver_].messageId = messageId;
    ++handedOver_;
  }
}

int64_t PendingEvents::acknowledge(int messageId) {
  port::MutexLock lock(mutex_);
  for (size_t i = 0; i < handedOver_; ++i) {
    if (events_[i].messageId == messageId) {
      const int64_t outboxId = events_[i].outboxId;
      events_.erase(events_.begin() + static_cast<std::ptrdiff_t>(i));
      --handedOver_;
      return outboxId;
    }
  }
  return 0;
}

void PendingEvents::takeBack() {
  port::MutexLock lock(mutex_);
  handedOver_ = 0;
}

size_t PendingEvents::size() const {
  port::MutexLock lock(mutex_);
  return events_.size();
}

PendingEvents::Dropped PendingEvents::clear() {
  port::MutexLock lock(mutex_);
  Dropped dropped{0, 0};
  for (const Event& event : events_) ++(event.outboxId != 0 ? dropped.inOutbox : dropped.inMemoryOnly);
  events_.clear();
  handedOver_ = 0;
  return dropped;
}

}  // namespace standin
