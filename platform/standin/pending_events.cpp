#include "pending_events.h"

#include <utility>

namespace standin {

PendingEvents::PendingEvents(size_t capacity) : capacity_(capacity) {}

bool PendingEvents::full() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_.size() >= capacity_;
}

void PendingEvents::push(std::string payload, int64_t outboxId) {
  std::lock_guard<std::mutex> lock(mutex_);
  events_.push_back(Event{std::move(payload), outboxId, 0});
}

void PendingEvents::handOver(size_t window, const Publish& publish) {
  std::lock_guard<std::mutex> lock(mutex_);
  while (handedOver_ < window && handedOver_ < events_.size()) {
    Event& event = events_[handedOver_];
    if (!publish(event.payload, &event.messageId)) return;
    ++handedOver_;
  }
}

int64_t PendingEvents::acknowledge(int messageId) {
  std::lock_guard<std::mutex> lock(mutex_);
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
  std::lock_guard<std::mutex> lock(mutex_);
  handedOver_ = 0;
}

size_t PendingEvents::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_.size();
}

PendingEvents::Dropped PendingEvents::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  Dropped dropped{0, 0};
  for (const Event& event : events_) ++(event.outboxId != 0 ? dropped.inOutbox : dropped.inMemoryOnly);
  events_.clear();
  handedOver_ = 0;
  return dropped;
}

}  // namespace standin
