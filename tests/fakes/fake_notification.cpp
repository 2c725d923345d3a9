#include "fake_notification.h"

#include <stdexcept>

namespace fake {
namespace {
NotificationScript g_script;
std::vector<NotificationEvent> g_sent;
int g_constructed = 0;
int g_shutDown = 0;
int g_destroyed = 0;
}  // namespace

NotificationScript& notificationScript() { return g_script; }
const std::vector<NotificationEvent>& sentNotifications() { return g_sent; }
int suppliersConstructed() { return g_constructed; }
int suppliersShutDown() { return g_shutDown; }
int suppliersDestroyed() { return g_destroyed; }

void resetNotification() {
  g_script = NotificationScript{};
  g_sent.clear();
  g_constructed = g_shutDown = g_destroyed = 0;
}

}  // namespace fake

// The fake keeps what it knows in the records above; a supplier has no state.
struct NotificationSupplier::State {};

NotificationSupplier::NotificationSupplier() : m_state(nullptr) {
  if (fake::g_script.constructorThrows) throw std::runtime_error("fake supplier: construction failed");
  ++fake::g_constructed;
}

NotificationSupplier::~NotificationSupplier() {
  delete m_state;
  ++fake::g_destroyed;
}

int NotificationSupplier::send_notification(NotificationEvent& event) {
  fake::g_sent.push_back(event);
  return fake::g_script.sendResult;
}

void NotificationSupplier::shutdown() {
  if (fake::g_script.shutdownThrows) throw std::runtime_error("fake supplier: shutdown failed");
  ++fake::g_shutDown;
}
