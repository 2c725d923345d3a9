// What the stand-ins' process-wide parts give back when the library is
// unloaded. Their state is never destroyed, since a publisher's thread may
// use it while the process exits; a process that loads and unloads the
// library many times would otherwise lose that memory at each unload.
#ifndef KSCDP_PLATFORM_STANDIN_PROCESS_UNLOAD_H_
#define KSCDP_PLATFORM_STANDIN_PROCESS_UNLOAD_H_

namespace standin {

// Gives back the registry of live publishers; false, releasing nothing,
// while a publisher lives (an engine that exits without stopping alerts).
bool releasePublisherRegistry();
// Forgets the last parse of the configuration file; the next read parses it.
void releaseConfigSnapshot();
// Closes the log file and forgets its path; the next record opens it again.
void releaseLogSink();

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_PROCESS_UNLOAD_H_
