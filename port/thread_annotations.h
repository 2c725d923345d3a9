// Clang's thread-safety annotations, so that the compiler checks which lock
// guards which data (-Wthread-safety). Other compilers see nothing.
#ifndef KSCDP_PORT_THREAD_ANNOTATIONS_H_
#define KSCDP_PORT_THREAD_ANNOTATIONS_H_

#if defined(__clang__)
#define KSCDP_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KSCDP_THREAD_ANNOTATION(x)
#endif

// A type that is a lock.
#define CAPABILITY(name) KSCDP_THREAD_ANNOTATION(capability(name))
// A type whose objects hold a lock from construction to destruction.
#define SCOPED_CAPABILITY KSCDP_THREAD_ANNOTATION(scoped_lockable)
// Data that may be touched only with the lock held.
#define GUARDED_BY(lock) KSCDP_THREAD_ANNOTATION(guarded_by(lock))
// A function that may be called only with the lock held.
#define REQUIRES(...) KSCDP_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
// A function that must not be called with the lock held.
#define EXCLUDES(...) KSCDP_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) KSCDP_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
// A function that takes, or gives up, the lock.
#define ACQUIRE(...) KSCDP_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) KSCDP_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// A function that returns a reference to the lock.
#define RETURN_CAPABILITY(x) KSCDP_THREAD_ANNOTATION(lock_returned(x))
// A function after which the caller holds the capability, without taking it.
#define ASSERT_CAPABILITY(x) KSCDP_THREAD_ANNOTATION(assert_capability(x))
// For the fork handlers, which take a lock in one function and give it back in another.
#define NO_THREAD_SAFETY_ANALYSIS KSCDP_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // KSCDP_PORT_THREAD_ANNOTATIONS_H_
