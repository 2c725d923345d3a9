#include "fake_platform.h"

namespace fake {

void resetPlatform() {
  resetLog();
  resetConfig();
  resetAllocator();
  resetPauses();
  resetCurlClient();
  resetKsqd();
  resetNotification();
}

}  // namespace fake
