// A mutex that clang's thread-safety analysis knows (libstdc++'s std::mutex
// carries no annotations), its scoped lock, and a condition variable to wait
// on it.
#ifndef KSCDP_PORT_MUTEX_H_
#define KSCDP_PORT_MUTEX_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "port/thread_annotations.h"

namespace port {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { m_mutex.lock(); }
  void unlock() RELEASE() { m_mutex.unlock(); }

 private:
  friend class CondVar;
  std::mutex m_mutex;
};

// Holds `mutex` from construction to destruction.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
  ~MutexLock() RELEASE() { m_mutex.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& m_mutex;
};

// Waits on a Mutex the caller holds; the wait gives it up and takes it back.
// Allocates nothing, so that one which is never destroyed leaks nothing.
class CondVar {
 public:
  void notifyAll() { m_condition.notify_all(); }
  template <typename Predicate>
  void wait(Mutex& mutex, Predicate done) REQUIRES(mutex) {
    std::unique_lock<std::mutex> held(mutex.m_mutex, std::adopt_lock);
    m_condition.wait(held, done);
    held.release();  // the caller still holds it
  }
  // As wait(), giving up at `deadline`; returns done()'s last answer.
  template <typename Clock, typename Duration, typename Predicate>
  bool waitUntil(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& deadline, Predicate done)
      REQUIRES(mutex) {
    std::unique_lock<std::mutex> held(mutex.m_mutex, std::adopt_lock);
    const bool result = m_condition.wait_until(held, deadline, done);
    held.release();
    return result;
  }

 private:
  std::condition_variable m_condition;
};

}  // namespace port

#endif  // KSCDP_PORT_MUTEX_H_
