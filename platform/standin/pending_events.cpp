#include "pending_events.h"

#include <utility>

namespace standin {

PendingEvents::PendingEvents(size_t capacity) : capacity_(capacity) {}

bool PendingEvents::push(std::string payload) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (events_.size() >= capacity_) return false;
  events_.push_back(Event{std::move(payload), 0});
  return true;
}

void PendingEvents::handOver(size_t window, const Publish& publish) {
  std::lock_guard<std::mutex> lock(mutex_);
  while (handedOver_ < window && handedOver_ < events_.size()) {
    Event& event = events_[handedOver_];
    if (!publish(event.payload, &event.messageId)) return;
    ++handedOver_;
  }
}

void PendingEvents::acknowledge(int messageId) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (size_t i = 0; i < handedOver_; ++i) {
    if (events_[i].messageId == messageId) {
      events_.erase(events_.begin() + static_cast<std::ptrdiff_t>(i));
      --handedOver_;
      return;
    }
  }
}

void PendingEvents::takeBack() {
  std::lock_guard<std::mutex> lock(mutex_);
  handedOver_ = 0;
}

size_t PendingEvents::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_.size();
}

size_t PendingEvents::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  const size_t dropped = events_.size();
  events_.clear();
  handedOver_ = 0;
  return dropped;
}

}  // namespace standin
