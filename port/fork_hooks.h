// What a process-wide part does around fork().
#ifndef KSCDP_PORT_FORK_HOOKS_H_
#define KSCDP_PORT_FORK_HOOKS_H_

namespace port {

// `prepare` takes the part's locks in the forking thread, so that no other
// thread is inside it when the process is copied; `parent` gives them back;
// `child` gives them back in the child and lets go of what is the parent's
// (connections, files, threads), never touching it. Each part declares its
// hooks beside its own interface; whoever registers them with
// pthread_atfork() orders them the way the parts' locks nest.
struct ForkHooks {
  void (*prepare)();
  void (*parent)();
  void (*child)();
};

}  // namespace port

#endif  // KSCDP_PORT_FORK_HOOKS_H_
