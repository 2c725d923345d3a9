// Event n of a numbered series, as the integration tests and
// kscdp_alert_raiser raise it.
#ifndef KSCDP_TESTS_INTEGRATION_PROGRAMS_NUMBERED_EVENT_H_
#define KSCDP_TESTS_INTEGRATION_PROGRAMS_NUMBERED_EVENT_H_

#include <string>

#include "platform/notification.h"

inline NotificationEvent numbered(long n) {
  NotificationEvent event{1, "Keepstone", "CDP", "CDP Backup Engine", "LOW", "INFO", "", {}};
  event.messageKey = "eventlog.omra.ksu.cdp.fullsync.done";
  event.attributes["seq"] = std::to_string(n);
  return event;
}

#endif  // KSCDP_TESTS_INTEGRATION_PROGRAMS_NUMBERED_EVENT_H_
