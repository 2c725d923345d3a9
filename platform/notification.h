// Notification library of the product: the event record and its publisher.
#ifndef KSCDP_PLATFORM_NOTIFICATION_H_
#define KSCDP_PLATFORM_NOTIFICATION_H_

#include <map>
#include <string>

struct NotificationEvent {
  int version;
  std::string producerType;
  std::string producerSubType;
  std::string notificationType;
  std::string priority;
  std::string severity;
  std::string messageKey;
  std::map<std::string, std::string> attributes;
};

// Publishes events to the master server's message broker from a delivery
// thread of its own, which lives from construction until shutdown().
class NotificationSupplier {
 public:
  NotificationSupplier();
  virtual ~NotificationSupplier();
  NotificationSupplier(const NotificationSupplier&) = delete;
  NotificationSupplier& operator=(const NotificationSupplier&) = delete;

  // Hands one event over for delivery. 0 once it is queued, non-zero when it
  // was refused.
  int send_notification(NotificationEvent& event);

  // Delivers what is waiting as far as it can, then stops the delivery thread.
  // Safe to call more than once.
  void shutdown();

  struct State;

 private:
  State* m_state;  // owned; the implementation's own
};

#endif  // KSCDP_PLATFORM_NOTIFICATION_H_
