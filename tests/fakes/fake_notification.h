// Recording fake of the notification library's publisher.
#ifndef KSCDP_TESTS_FAKES_FAKE_NOTIFICATION_H_
#define KSCDP_TESTS_FAKES_FAKE_NOTIFICATION_H_

#include <vector>

#include "platform/notification.h"

namespace fake {

// How the next NotificationSupplier calls behave. A throwing call throws
// std::runtime_error and records nothing.
struct NotificationScript {
  int sendResult = 0;
  bool constructorThrows = false;
  bool shutdownThrows = false;
};

NotificationScript& notificationScript();
// Every event handed to send_notification since the reset, in order.
const std::vector<NotificationEvent>& sentNotifications();
int suppliersConstructed();
int suppliersShutDown();
int suppliersDestroyed();
void resetNotification();

}  // namespace fake

#endif  // KSCDP_TESTS_FAKES_FAKE_NOTIFICATION_H_
