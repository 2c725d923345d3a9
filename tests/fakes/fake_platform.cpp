#include "fake_platform.h"

void fake::resetPlatform() {
  logLines.clear();
  resetConfig();
  allocator = Allocator{};
  pauses.clear();
  curl = Curl{};
  ksqd = Ksqd{};
  notifications = Notifications{};
}
