// Gives back the stand-ins' process-wide state when the library is unloaded,
// or when the process exits with no publisher left.
#include "platform/standin/process/unload.h"

#include "platform/standin/counters/metrics.h"
#include "platform/standin/metrics/writer.h"
#include "platform/standin/mqtt/mosquitto_library.h"

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
  }
} g_releaseAtUnload;

}  // namespace
}  // namespace standin
