// Keeping the descriptors of the stand-ins' libraries out of the programs the
// engine starts. A descriptor the stand-ins open themselves is opened with
// O_CLOEXEC (SOCK_CLOEXEC); libcurl's connections are opened through a
// callback that does the same. What remains are descriptors that a library
// opens without the flag and does not name (libcurl's and libmosquitto's
// wake-up socket pairs) or names only after the call that opened them
// (libmosquitto's connection): those are marked here, with fork() held off
// meanwhile.
//
// What stays open to a race: posix_spawn() and vfork() run no fork handlers,
// so a program started that way in the microseconds between such a
// library's socket() and the marking inherits that one descriptor.
#ifndef KSCDP_PLATFORM_STANDIN_FILES_CLOSE_ON_EXEC_H_
#define KSCDP_PLATFORM_STANDIN_FILES_CLOSE_ON_EXEC_H_

#include <cstddef>
#include <functional>

#include "port/fork_hooks.h"

namespace standin {

// Runs `call` with fork() held off: a fork() of another thread waits until
// `call` returns. `call` must take none of the locks of the stand-ins' other
// fork hooks, and should not block for long. Thread-safe.
void withForkHeldOff(const std::function<void()>& call);

// Runs `call`, which opens `sockets` sockets without close-on-exec and does
// not say which, with fork() held off, and marks the sockets it opened
// close-on-exec. They are found as the sockets without the flag that were not
// open before the call. True when exactly `sockets` such sockets appeared and
// were marked; false, touching none, when another number appeared (another
// thread of the process opened or closed sockets meanwhile, or `call`
// failed). Thread-safe.
bool markSocketsOpenedBy(size_t sockets, const std::function<void()>& call);

// Sets close-on-exec on `fd`; false when it is not open. Thread-safe.
bool setCloseOnExec(int fd);

// Around fork(): the lock that withForkHeldOff() holds. Outermost of all the
// stand-ins' fork locks: none of the others is taken while it is held.
extern const port::ForkHooks kCloseOnExecForkHooks;

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_FILES_CLOSE_ON_EXEC_H_
