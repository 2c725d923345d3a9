// What each process-wide part of the stand-ins does around fork().
#ifndef KSCDP_PLATFORM_STANDIN_PROCESS_FORK_HOOKS_H_
#define KSCDP_PLATFORM_STANDIN_PROCESS_FORK_HOOKS_H_

namespace standin {

// `prepare` takes the part's locks in the forking thread, so that no other
// thread is inside it when the process is copied; `parent` gives them back;
// `child` gives them back in the child and lets go of what is the parent's
// (connections, files, threads), never touching it. fork_hooks.cpp
// registers them once, in the order their locks nest.
struct ForkHooks {
  void (*prepare)();
  void (*parent)();
  void (*child)();
};

extern const ForkHooks kPublisherForkHooks;      // the live publishers and their outboxes
extern const ForkHooks kConfigForkHooks;         // the configuration snapshot
extern const ForkHooks kCurlForkHooks;           // the pool of libcurl handles
extern const ForkHooks kLogForkHooks;            // the log file
extern const ForkHooks kMetricsWriterForkHooks;  // the metrics file's writer
extern const ForkHooks kMetricsForkHooks;        // the counts of the metrics file

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_PROCESS_FORK_HOOKS_H_
