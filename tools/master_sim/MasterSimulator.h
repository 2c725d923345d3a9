// A master server on loopback for the demo and the tests: the request
// daemon's manual-backup endpoint and the REST jobs interface, with fault
// switches and a record of every request it received.
//
//   POST /ksqd/<kind>  {"policy": "<name>"}  -> {"jobid": <id>}
//   GET  /keepstone/admin/jobs/<id>          -> the job document
//   GET  /sim/requests                       -> every request so far, as JSON
//
// A job is QUEUED for the first half of jobSeconds after it starts, ACTIVE for
// the second half and DONE from then on. Time is the steady clock plus
// whatever advanceTime() added, so tests need not wait for jobs.
//
// Thread-safe: the server answers on threads of its own while tests script it.
#ifndef KSCDP_TOOLS_MASTER_SIM_MASTERSIMULATOR_H_
#define KSCDP_TOOLS_MASTER_SIM_MASTERSIMULATOR_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "rest/KeepstoneRestApi.h"

namespace master_sim {

struct JobFaults {
  int unknownForPolls = 0;   // the job's first N polls answer 404
  bool bodyNotJson = false;  // its polls answer 200 with a body that is not JSON
};

struct PolicyFaults {
  int httpStatus = 0;           // non-zero: daemon requests for the policy fail with it
  int daemonStatus = 0;         // non-zero: sent with such a failure as X-Ksqd-Status
  bool answerNotJson = false;   // daemon requests answer 200 with a body that is not JSON
  bool answerTooLarge = false;  // daemon requests start the job and answer 200 with more than 1 MiB of JSON
};

struct MasterSimulatorOptions {
  std::string host = "127.0.0.1";
  int port = 0;  // 0: any free port; see MasterSimulator::port()
  int64_t firstJobId = 1000;
  double jobSeconds = 2.0;  // from start to DONE; fractions allowed
  JobFaults jobFaults;      // of every job that a daemon request starts
  // The only Accept that the jobs interface serves: another value plays a
  // master of another release, which answers the library's requests 406.
  std::string jobsMediaType = keepstone_rest::kVersionedMediaType;
  // Threads that answer requests; 0: the HTTP library's default (8 on a
  // small host). A client's open connection holds one while it is kept
  // alive, so a simulator serving many engines at once needs as many.
  int threads = 0;
  // How long a kept-alive connection may stay idle before the server closes
  // it, in whole seconds (at least 1); stop() waits this long at most.
  int keepAliveSeconds = 1;
  // With a PEM certificate and key, both interfaces are served over HTTPS
  // only; with a CA bundle besides, only to clients presenting a certificate
  // it signed, as a master that authenticates its hosts.
  std::string tlsCertFile;
  std::string tlsKeyFile;
  std::string clientCaFile;
};

struct RecordedRequest {
  std::string method;
  std::string path;
  std::map<std::string, std::string> headers;  // names as sent; repeated ones joined by ", "
  std::string body;
  int remotePort = 0;  // the client's end of the connection
  int status = 0;      // of the answer
};

class MasterSimulator {
 public:
  explicit MasterSimulator(MasterSimulatorOptions options = MasterSimulatorOptions());
  // Stops the server.
  ~MasterSimulator();
  MasterSimulator(const MasterSimulator&) = delete;
  MasterSimulator& operator=(const MasterSimulator&) = delete;

  // Binds and serves on a thread of its own; returns once requests are being
  // answered, or false when the address cannot be bound or the TLS files
  // cannot be used. A simulator starts
  // once: after stop() it stays stopped.
  bool start();
  // Closes the listening socket, lets the answers under way finish and waits
  // for the server thread; a connection its client keeps open idle ends
  // within a second. Idempotent.
  void stop();

  int port() const;         // the bound port, valid after a successful start()
  std::string url() const;  // "http://<host>:<port>", "https://..." with TLS

  // Starts a job for `policy` as a daemon request would, and returns its id.
  int64_t createJob(const std::string& policy);
  // Faults of the daemon requests for `policy` from now on.
  void setPolicyFaults(const std::string& policy, const PolicyFaults& faults);
  // Moves the simulator's clock forward.
  void advanceTime(double seconds);
  // For `seconds` from now, every daemon and jobs request is answered 503, as
  // by a master that is restarting; POST /sim/unavailable?seconds=N does the
  // same from outside.
  void unavailableFor(double seconds);

  // Every request received so far except those under /sim/, in arrival order.
  std::vector<RecordedRequest> requests() const;
  // The same as the JSON document that GET /sim/requests answers.
  std::string requestsJson() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace master_sim

#endif  // KSCDP_TOOLS_MASTER_SIM_MASTERSIMULATOR_H_
