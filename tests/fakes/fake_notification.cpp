#include "fake_notification.h"

#include <stdexcept>

// The fake keeps what it knows in fake::notifications; a supplier has no state.
struct NotificationSupplier::State {};

NotificationSupplier::NotificationSupplier() : m_state(nullptr) {
  if (fake::notifications.constructorThrows) throw std::runtime_error("fake supplier: construction failed");
  ++fake::notifications.constructed;
}

NotificationSupplier::~NotificationSupplier() {
  delete m_state;
  ++fake::notifications.destroyed;
}

int NotificationSupplier::send_notification(NotificationEvent& event) {
  if (fake::notifications.sendThrows) throw std::runtime_error("fake supplier: send failed");
  if (fake::notifications.whileSending) fake::notifications.whileSending();
  fake::notifications.sent.push_back(event);
  return fake::notifications.sendResult;
}

void NotificationSupplier::shutdown() {
  if (fake::notifications.shutdownThrows) throw std::runtime_error("fake supplier: shutdown failed");
  ++fake::notifications.shutDown;
}
