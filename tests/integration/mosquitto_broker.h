// A mosquitto broker of a test's own, for tests that publish or subscribe
// through a real broker.
#ifndef KSCDP_TESTS_INTEGRATION_MOSQUITTO_BROKER_H_
#define KSCDP_TESTS_INTEGRATION_MOSQUITTO_BROKER_H_

#include <sys/types.h>

#include <string>

namespace testbed {

// Runs /usr/sbin/mosquitto on 127.0.0.1 and a port picked at run time, for
// anonymous clients unless told otherwise, with its configuration, log and
// any saved state in a temporary directory of its own. stop() and start() play an outage: the
// broker comes back on the same port. The broker dies with the test process.
class MosquittoBroker {
 public:
  struct Options {
    // Saves sessions when the broker stops and loads them when it starts, so
    // that a subscriber with clean_session false keeps its subscription and
    // the messages published for it while it was away.
    bool keepSessions = false;
    // With a certificate and key, port() speaks TLS only, and plainPort() is
    // a second, plain listener for anonymous subscribers.
    std::string certFile;
    std::string keyFile;
    // With a CA, port() admits only clients whose certificate it signed.
    std::string clientCaFile;
    // With a mosquitto_passwd file, port() admits only the users it names.
    std::string passwordFile;
  };

  // Starts the broker and returns once it accepts connections. Throws
  // std::runtime_error, with the broker's log, when it does not come up.
  MosquittoBroker();
  explicit MosquittoBroker(Options options);
  ~MosquittoBroker();
  MosquittoBroker(const MosquittoBroker&) = delete;
  MosquittoBroker& operator=(const MosquittoBroker&) = delete;

  int port() const { return m_port; }
  // The plain listener for anonymous clients: port() unless port() is secured.
  int plainPort() const { return m_plainPort; }
  // "127.0.0.1:<port>", as the "broker" configuration key takes it.
  std::string address() const;

  // Starts the stopped broker again on the same port; returns once it
  // accepts connections.
  void start();
  // Stops the broker (SIGTERM) and returns once it has exited.
  void stop();

 private:
  // Writes the configuration, runs the broker and waits until it accepts
  // connections; false, with its log in `failure`, when it does not.
  bool tryStart(std::string& failure);

  Options m_options;
  std::string m_directory;
  int m_port = 0;
  int m_plainPort = 0;
  pid_t m_pid = -1;  // -1 while stopped
};

// A loopback port that was free a moment ago (bound to port 0, then closed).
int freeLoopbackPort();

}  // namespace testbed

#endif  // KSCDP_TESTS_INTEGRATION_MOSQUITTO_BROKER_H_
