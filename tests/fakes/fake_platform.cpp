#include "fake_platform.h"

void fake::resetPlatform() {
  logLines.clear();
  logFails = false;
  resetConfig();
  allocator = Allocator{};
  pauses.clear();
  curl = Curl{};
  ksqd = Ksqd{};
  notifications = Notifications{};
}
