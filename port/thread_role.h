// A thread's claim to data that only it touches, for clang's thread-safety
// analysis: such data is GUARDED_BY the role, the functions that touch it
// REQUIRE the role, and the thread names itself its holder where it starts.
#ifndef KSCDP_PORT_THREAD_ROLE_H_
#define KSCDP_PORT_THREAD_ROLE_H_

#include "port/thread_annotations.h"

namespace port {

// Costs nothing at run time: the claim is the caller's word, checked only in
// that every touch of the guarded data follows one.
class CAPABILITY("role") ThreadRole {
 public:
  ThreadRole() = default;
  ThreadRole(const ThreadRole&) = delete;
  ThreadRole& operator=(const ThreadRole&) = delete;

  // The calling thread holds the role from here to the end of its scope:
  // it is the role's thread, or that thread has ended (joined) and its data
  // passed to the caller.
  void claim() const ASSERT_CAPABILITY(this) {}
};

}  // namespace port

#endif  // KSCDP_PORT_THREAD_ROLE_H_
