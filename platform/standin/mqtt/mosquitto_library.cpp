#include "platform/standin/mqtt/mosquitto_library.h"

#include <mosquitto.h>

#include "port/mutex.h"
#include "port/no_destructor.h"

namespace standin {
namespace {

// Never destroyed: unloading gives libmosquitto back, after which nothing
// runs here.
struct LibraryUse {
  port::Mutex mutex;
  bool initialised GUARDED_BY(mutex) = false;
};
port::NoDestructor<LibraryUse> g_use;

}  // namespace

void useMosquittoLibrary() {
  port::MutexLock lock(g_use->mutex);
  if (g_use->initialised) return;
  mosquitto_lib_init();
  g_use->initialised = true;
}

void releaseMosquittoLibrary() {
  port::MutexLock lock(g_use->mutex);
  if (!g_use->initialised) return;
  mosquitto_lib_cleanup();
  g_use->initialised = false;
}

}  // namespace standin
