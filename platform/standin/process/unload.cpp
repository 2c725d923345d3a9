// Gives back the stand-ins' process-wide state when the library is unloaded,
// or when the process exits with no publisher left. That state is never
// destroyed, since a publisher's thread may use it while the process exits;
// a process that loads and unloads the library many times would otherwise
// lose that memory at each unload.
#include "platform/standin/config/config_file.h"
#include "platform/standin/counters/metrics.h"
#include "platform/standin/files/log_sink.h"
#include "platform/standin/metrics/writer.h"
#include "platform/standin/mqtt/mosquitto_library.h"
#include "platform/standin/outbox/descriptor_vfs.h"
#include "platform/standin/publisher/registry.h"

namespace standin {
namespace {

struct ReleaseAtUnload {
  ~ReleaseAtUnload() {
    stopMetricsWriter();
    // A live publisher's thread may still log and read the configuration.
    if (!releasePublisherRegistry()) return;
    metrics::releaseQueueRegistry();
    releaseConfigSnapshot();
    releaseLogSink();
    releaseMosquittoLibrary();
    releaseDescriptorVfs();
  }
} g_releaseAtUnload;

}  // namespace
}  // namespace standin
