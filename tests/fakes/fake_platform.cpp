#include "fake_platform.h"

namespace fake {

void resetPlatform() {
  resetLog();
  resetConfig();
  resetAllocator();
  resetPauses();
  resetNotification();
}

}  // namespace fake
