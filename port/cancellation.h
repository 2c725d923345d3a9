// Holds off thread cancellation for as long as the library runs on a thread
// of the caller's.
#ifndef KSCDP_PORT_CANCELLATION_H_
#define KSCDP_PORT_CANCELLATION_H_

#include <pthread.h>

namespace port {

// Disables the calling thread's cancellation from construction to
// destruction, then restores the state the caller had. A cancellation
// requested meanwhile stays pending and takes effect at the caller's next
// cancellation point, so it never finds a lock held or a record half made.
class CancellationHeldOff {
 public:
  CancellationHeldOff() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_previous); }
  ~CancellationHeldOff() { pthread_setcancelstate(m_previous, nullptr); }
  CancellationHeldOff(const CancellationHeldOff&) = delete;
  CancellationHeldOff& operator=(const CancellationHeldOff&) = delete;

 private:
  int m_previous = PTHREAD_CANCEL_ENABLE;
};

}  // namespace port

#endif  // KSCDP_PORT_CANCELLATION_H_
