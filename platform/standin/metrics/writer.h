// The metrics file's writer: a thread that rewrites the file named by
// "metrics_file" every "metrics_interval" seconds while a notification
// publisher lives, and once more when the last one stops.
#ifndef KSCDP_PLATFORM_STANDIN_METRICS_WRITER_H_
#define KSCDP_PLATFORM_STANDIN_METRICS_WRITER_H_

#include <string>

#include "port/fork_hooks.h"

namespace standin {

// One user's hold on the writer. The first hold starts the writer's thread
// when the configuration names a metrics file; release() of the last hold
// has the thread write the file once more and joins it. The path and the
// interval are read afresh before every rewrite. Engine calls never wait for
// the writer, and it holds no lock of theirs while it writes. A forked child
// never writes: the file is its parent's. Never throws.
class MetricsWriterUse {
 public:
  MetricsWriterUse();
  ~MetricsWriterUse() { release(); }
  MetricsWriterUse(const MetricsWriterUse&) = delete;
  MetricsWriterUse& operator=(const MetricsWriterUse&) = delete;

  // Gives the hold back; later calls do nothing. Waits for the last write
  // (the file's directory, as slow as its disk) when this was the last hold.
  void release();

 private:
  bool m_held = false;
};

// Around fork(): the writer is not starting or ending while the process is
// copied; the child has no writer thread.
extern const port::ForkHooks kMetricsWriterForkHooks;

// Stops the writer whatever holds it, without a last write: the library is
// being unloaded, and no thread may run its code afterwards.
void stopMetricsWriter();

// Writes `text` to `path` through a temporary file in the same directory,
// renamed over it, mode 0644: a reader sees the old file or the new one,
// never a part. No temporary file is left, whatever fails. False with
// `error` set on failure.
bool replaceFileAtomically(const std::string& path, const std::string& text, std::string& error);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_METRICS_WRITER_H_
