// The publisher's log lines: every one under the name the engine's operators
// know it by, "NotificationSupplier".
#ifndef KSCDP_PLATFORM_STANDIN_PUBLISHER_PUBLISHER_LOG_H_
#define KSCDP_PLATFORM_STANDIN_PUBLISHER_PUBLISHER_LOG_H_

#include <string>

#include "platform/ksu_log.h"

namespace standin {

constexpr char kPublisherLogName[] = "NotificationSupplier";

// A failure, at level 16. May throw std::bad_alloc.
inline void logPublisherFailure(const std::string& message) {
  ksu_logmsg_str(FAILURE_LEVEL, kPublisherLogName, message);
}

// Progress, at level 4. May throw std::bad_alloc.
inline void logPublisherProgress(const std::string& message) {
  ksu_logmsg_str(PROGRESS_LEVEL, kPublisherLogName, message);
}

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_PUBLISHER_PUBLISHER_LOG_H_
