// Every live publisher of the process, for the fork handlers and for
// unloading.
#ifndef KSCDP_PLATFORM_STANDIN_PUBLISHER_REGISTRY_H_
#define KSCDP_PLATFORM_STANDIN_PUBLISHER_REGISTRY_H_

#include "port/fork_hooks.h"

namespace standin {

// What the registry asks of a live publisher around fork(): to hold its
// publishing and its outbox still while the process is copied, and to let go
// of them afterwards. In the child it lets go of its parent's connection,
// outbox and thread without touching them, and is never destroyed.
class ForkingPublisher {
 public:
  virtual void holdForFork() = 0;
  virtual void releaseAfterFork(bool inChild) = 0;

 protected:
  ~ForkingPublisher() = default;
};

// Adds a publisher that has started. Thread-safe; may throw std::bad_alloc.
void registerPublisher(ForkingPublisher* publisher);
// Removes a publisher before it stops. Thread-safe.
void unregisterPublisher(ForkingPublisher* publisher);

// Around fork(): each live publisher holds still while the process is
// copied, and lets go of the parent's connection and outbox in the child.
extern const port::ForkHooks kPublisherForkHooks;

// Gives back the registry of live publishers; false, releasing nothing,
// while a publisher lives (an engine that exits without stopping alerts).
// For unloading.
bool releasePublisherRegistry();

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_PUBLISHER_REGISTRY_H_
