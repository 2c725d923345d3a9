// A TCP proxy on loopback that plays a faulty network between a client and
// the service it reaches: silence, latency, connections reset once the
// service has read a request, and a service that refuses connections.
#ifndef KSCDP_TOOLS_FAULT_PROXY_FAULT_PROXY_H_
#define KSCDP_TOOLS_FAULT_PROXY_FAULT_PROXY_H_

#include <chrono>
#include <string>
#include <thread>

#include "port/mutex.h"

namespace faultproxy {

// Listens on 127.0.0.1 and forwards every connection to a target, from a
// thread of its own that lives as long as the object. Without a fault it
// passes bytes both ways unchanged, and passes on a close or a reset of
// either side. Every call is thread-safe.
class FaultProxy {
 public:
  using Duration = std::chrono::milliseconds;

  // Listens on `listenPort` (0: a free port) and forwards to
  // targetHost:targetPort (an IPv4 address). Throws std::runtime_error
  // when it cannot listen.
  FaultProxy(int listenPort, const std::string& targetHost, int targetPort);
  // Closes every connection at once.
  ~FaultProxy();
  FaultProxy(const FaultProxy&) = delete;
  FaultProxy& operator=(const FaultProxy&) = delete;

  int port() const { return m_port; }

  // For `duration`: nothing moves either way, no connection is accepted or
  // closed; bytes wait in the kernel's buffers as behind a partition.
  void freeze(Duration duration);
  // For `duration`: what the target answers reaches the client `latency`
  // later (the target reads requests at once, as behind a slow service).
  void delay(Duration latency, Duration duration);
  // The next `count` answers the target starts to give (on any connection)
  // end the connection with a reset to both sides instead: the target has
  // read and acted on the request, the client never hears.
  void resetAnswers(int count);
  // Resets every open connection, and for `duration` every new one as soon as
  // it is accepted, before a byte passes: a service that refuses every
  // handshake, TLS's included.
  void refuse(Duration duration);
  // Ends every fault at once.
  void pass();

 private:
  using Clock = std::chrono::steady_clock;
  struct Faults {
    Clock::time_point frozenUntil;
    Clock::time_point delayedUntil;
    Duration latency{0};
    int resetsLeft = 0;
    Clock::time_point refusedUntil;
    uint64_t refusals = 0;  // counts refuse() calls: each resets the open connections once
  };

  // The faults in force now; takes one reset when `takeReset` and one is left.
  Faults faults(bool takeReset = false);
  void run();
  void wake();

  const std::string m_targetHost;
  const int m_targetPort;
  int m_listenFd = -1;
  int m_wakeFd = -1;
  int m_port = 0;
  port::Mutex m_mutex;
  bool m_stopping GUARDED_BY(m_mutex) = false;
  Faults m_faults GUARDED_BY(m_mutex);
  std::thread m_thread;
};

}  // namespace faultproxy

#endif  // KSCDP_TOOLS_FAULT_PROXY_FAULT_PROXY_H_
