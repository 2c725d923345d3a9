// The log file behind KSU_log(): the process-wide part's hooks.
#ifndef KSCDP_PLATFORM_STANDIN_FILES_LOG_SINK_H_
#define KSCDP_PLATFORM_STANDIN_FILES_LOG_SINK_H_

#include "port/fork_hooks.h"

namespace standin {

// Around fork(): a record being written is finished before the copy; the
// child opens the file afresh on its first record.
extern const port::ForkHooks kLogForkHooks;

// Closes the log file and forgets its path; the next record opens it again.
// For unloading.
void releaseLogSink();

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_FILES_LOG_SINK_H_
