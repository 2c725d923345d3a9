// Recording fake of the notification library's publisher.
#ifndef KSCDP_TESTS_FAKES_FAKE_NOTIFICATION_H_
#define KSCDP_TESTS_FAKES_FAKE_NOTIFICATION_H_

#include <functional>
#include <vector>

#include "platform/notification.h"

namespace fake {

struct Notifications {
  // How the next NotificationSupplier calls behave. A throwing call throws
  // std::runtime_error and records nothing.
  int sendResult = 0;
  bool constructorThrows = false;
  bool sendThrows = false;
  bool shutdownThrows = false;
  std::function<void()> whileSending;  // run inside every send_notification call

  std::vector<NotificationEvent> sent;  // every event handed to send_notification
  int constructed = 0;
  int shutDown = 0;
  int destroyed = 0;
};

inline Notifications notifications;

}  // namespace fake

#endif  // KSCDP_TESTS_FAKES_FAKE_NOTIFICATION_H_
