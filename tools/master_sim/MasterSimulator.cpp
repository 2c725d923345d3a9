#include "master_sim/MasterSimulator.h"

#include <httplib.h>
#include <jansson.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "platform/standin/config/protocol.h"
#include "port/mutex.h"
#include "rest/KeepstoneRestApi.h"
#include "services/JsonReference.h"

namespace master_sim {

namespace {

using Clock = std::chrono::steady_clock;

const char kJsonType[] = "application/json";
// Past the largest answer a client of the master need read (1 MiB).
const size_t kTooLargeAnswerBytes = 1536 * 1024;
const char kNotJson[] = "<html><body>Service temporarily unavailable</body></html>";
const char kNotJsonType[] = "text/html";
// Headers that the HTTP server adds to a request itself; no client sent them.
const char* const kServerMadeHeaders[] = {"REMOTE_ADDR", "REMOTE_PORT", "LOCAL_ADDR", "LOCAL_PORT"};

// A JSON string of `text`; bytes that are not UTF-8 are read as Latin-1 so
// that nothing a client sent is dropped.
json_t* textValue(const std::string& text) {
  if (json_t* value = json_stringn(text.data(), text.size())) return value;
  std::string utf8;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      utf8 += c;
    } else {
      utf8 += static_cast<char>(0xc0 | (byte >> 6));
      utf8 += static_cast<char>(0x80 | (byte & 0x3f));
    }
  }
  return json_stringn(utf8.data(), utf8.size());
}

std::string compact(const JsonReference& value) {
  char* text = value ? json_dumps(value.get(), JSON_COMPACT) : nullptr;
  if (text == nullptr) return "{}";
  std::string result(text);
  std::free(text);
  return result;
}

std::string errorDocument(int code, const std::string& message) {
  return compact(JsonReference(json_pack("{s:i,s:o}", "errorCode", code, "errorMessage", textValue(message))));
}

bool parseJobId(const std::string& text, int64_t& id) {
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, id);
  return parsed.ec == std::errc() && parsed.ptr == end;
}

struct Job {
  std::string policy;
  Clock::time_point started;
  JobFaults faults;
  int polls = 0;
};

}  // namespace

struct MasterSimulator::Impl {
  explicit Impl(MasterSimulatorOptions simOptions)
      : m_options(std::move(simOptions)), m_server(makeServer(m_options)), m_nextJobId(m_options.firstJobId) {}

  static std::unique_ptr<httplib::Server> makeServer(const MasterSimulatorOptions& options);

  void addRoutes();
  // Serves until stop(); run on serverThread.
  void serve();
  void announceServing();
  void answerJob(const httplib::Request& request, httplib::Response& response);
  void answerDaemon(const httplib::Request& request, httplib::Response& response);
  void unavailableFor(double seconds);
  // True, with a 503 in `response`, while the simulator plays an unavailable master.
  bool answeredUnavailable(httplib::Response& response);
  void recordRequest(const httplib::Request& request, int status);
  std::string requestsJson() const;
  int64_t startJob(const std::string& policy, const JobFaults& faults) REQUIRES(m_mutex);
  const char* stateOf(const Job& job) const REQUIRES(m_mutex);

  const MasterSimulatorOptions m_options;
  const std::unique_ptr<httplib::Server> m_server;
  std::thread m_serverThread;
  int m_port = -1;
  bool m_started = false;

  port::Mutex m_servingMutex;
  port::CondVar m_servingAnnounced;
  // True once the server loop runs, or once the server thread ends without it.
  bool m_serverLoopEntered GUARDED_BY(m_servingMutex) = false;

  mutable port::Mutex m_mutex;
  int64_t m_nextJobId GUARDED_BY(m_mutex);
  std::map<int64_t, Job> m_jobs GUARDED_BY(m_mutex);
  std::map<std::string, PolicyFaults> m_policyFaults GUARDED_BY(m_mutex);
  Clock::duration m_timeAdded GUARDED_BY(m_mutex){};
  Clock::time_point m_unavailableUntil GUARDED_BY(m_mutex){};
  std::vector<RecordedRequest> m_requests GUARDED_BY(m_mutex);
};

std::unique_ptr<httplib::Server> MasterSimulator::Impl::makeServer(const MasterSimulatorOptions& options) {
  if (options.tlsCertFile.empty()) return std::unique_ptr<httplib::Server>(new httplib::Server);
  auto* server = new httplib::SSLServer(options.tlsCertFile.c_str(), options.tlsKeyFile.c_str(),
                                        options.clientCaFile.empty() ? nullptr : options.clientCaFile.c_str());
  // A server that verifies its clients resumes their TLS sessions only within
  // a session id context; without one OpenSSL fails every resumption.
  static const unsigned char kSessionContext[] = "kscdp-master-sim";
  if (server->is_valid())
    SSL_CTX_set_session_id_context(server->ssl_context(), kSessionContext, sizeof kSessionContext - 1);
  return std::unique_ptr<httplib::Server>(server);
}

void MasterSimulator::Impl::addRoutes() {
  // Connections stay open for as many requests as a client sends.
  m_server->set_keep_alive_max_count(1000000);
  // A stopped server still serves each open connection until its client
  // closes it or it has been idle this long. The server counts whole seconds,
  // and at 0 it would also drop a new connection whose first request is a few
  // milliseconds late.
  m_server->set_keep_alive_timeout(std::max(m_options.keepAliveSeconds, 1));
  // Headers and body go out in separate writes; without this the body waits
  // for the client's delayed acknowledgement.
  m_server->set_tcp_nodelay(true);
  m_server->Get(std::string("/") + keepstone_rest::kJobsPath + "([^/]+)",
                [this](const httplib::Request& request, httplib::Response& response) { answerJob(request, response); });
  m_server->Post(
      std::string(standin::kDaemonPath) + "([^/]+)",
      [this](const httplib::Request& request, httplib::Response& response) { answerDaemon(request, response); });
  m_server->Get("/sim/requests", [this](const httplib::Request&, httplib::Response& response) {
    response.set_content(requestsJson(), kJsonType);
  });
  m_server->Post("/sim/unavailable", [this](const httplib::Request& request, httplib::Response& response) {
    unavailableFor(std::atof(request.get_param_value("seconds").c_str()));
    response.set_content("{}", kJsonType);
  });
  m_server->set_post_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
    recordRequest(request, response.status);
  });
}

void MasterSimulator::Impl::serve() {
  // The server makes its task queue once its loop runs, when stop() can end
  // it; that is the moment start() waits for.
  m_server->new_task_queue = [this] {
    announceServing();
    return new httplib::ThreadPool(m_options.threads > 0 ? static_cast<size_t>(m_options.threads)
                                                         : CPPHTTPLIB_THREAD_POOL_COUNT);
  };
  m_server->listen_after_bind();
  announceServing();  // in case the loop never ran
}

void MasterSimulator::Impl::announceServing() {
  {
    port::MutexLock lock(m_servingMutex);
    m_serverLoopEntered = true;
  }
  m_servingAnnounced.notifyAll();
}

int64_t MasterSimulator::Impl::startJob(const std::string& policy, const JobFaults& faults) {
  const int64_t id = m_nextJobId++;
  m_jobs[id] = Job{policy, Clock::now() + m_timeAdded, faults, 0};
  return id;
}

const char* MasterSimulator::Impl::stateOf(const Job& job) const {
  const double age = std::chrono::duration<double>(Clock::now() + m_timeAdded - job.started).count();
  if (age >= m_options.jobSeconds) return "DONE";
  return age >= m_options.jobSeconds / 2 ? "ACTIVE" : "QUEUED";
}

void MasterSimulator::Impl::unavailableFor(double seconds) {
  port::MutexLock lock(m_mutex);
  m_unavailableUntil =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

bool MasterSimulator::Impl::answeredUnavailable(httplib::Response& response) {
  {
    port::MutexLock lock(m_mutex);
    if (Clock::now() >= m_unavailableUntil) return false;
  }
  response.status = 503;
  response.set_content(errorDocument(503, "Service unavailable: the master server is restarting"), kJsonType);
  return true;
}

void MasterSimulator::Impl::answerJob(const httplib::Request& request, httplib::Response& response) {
  if (answeredUnavailable(response)) return;
  if (request.get_header_value("Accept") != m_options.jobsMediaType) {
    response.status = 406;
    response.set_content(errorDocument(406, "Not acceptable: jobs are served as " + m_options.jobsMediaType),
                         kJsonType);
    return;
  }
  const std::string idText = request.matches[1];
  int64_t id = 0;
  port::MutexLock lock(m_mutex);
  const auto found = parseJobId(idText, id) ? m_jobs.find(id) : m_jobs.end();
  if (found == m_jobs.end() || found->second.polls++ < found->second.faults.unknownForPolls) {
    response.status = 404;
    response.set_content(errorDocument(404, "No job with id " + idText), kJsonType);
    return;
  }
  const Job& job = found->second;
  if (job.faults.bodyNotJson) {
    response.set_content(kNotJson, kNotJsonType);
    return;
  }
  const JsonReference document(json_pack("{s:{s:s,s:o,s:{s:I,s:s,s:o,s:s,s:i}}}", "data", "type", "job", "id",
                                         textValue(idText), "attributes", "jobId", static_cast<json_int_t>(id),
                                         "jobType", "BACKUP", "policyName", textValue(job.policy), "state",
                                         stateOf(job), "status", 0));
  response.set_content(compact(document), keepstone_rest::kVersionedMediaType);
}

void MasterSimulator::Impl::answerDaemon(const httplib::Request& request, httplib::Response& response) {
  if (answeredUnavailable(response)) return;
  const JsonReference body(json_loadb(request.body.data(), request.body.size(), 0, nullptr));
  json_t* policyValue = json_object_get(body.get(), "policy");
  if (!json_is_string(policyValue)) {
    response.status = 400;
    response.set_content(errorDocument(400, "The request must be a JSON object with a string \"policy\""), kJsonType);
    return;
  }
  const std::string policy(json_string_value(policyValue), json_string_length(policyValue));
  port::MutexLock lock(m_mutex);
  const auto fault = m_policyFaults.find(policy);
  if (fault != m_policyFaults.end() && fault->second.httpStatus != 0) {
    response.status = fault->second.httpStatus;
    if (fault->second.daemonStatus != 0) {
      response.set_header("X-Ksqd-Status", std::to_string(fault->second.daemonStatus));
    }
    response.set_content(errorDocument(fault->second.httpStatus, "Backup request for policy " + policy + " failed"),
                         kJsonType);
    return;
  }
  if (fault != m_policyFaults.end() && fault->second.answerNotJson) {
    response.set_content(kNotJson, kNotJsonType);
    return;
  }
  const int64_t id = startJob(policy, m_options.jobFaults);
  if (fault != m_policyFaults.end() && fault->second.answerTooLarge) {
    const std::string padding(kTooLargeAnswerBytes, ' ');
    response.set_content("{\"jobid\": " + std::to_string(id) + "," + padding + "}", kJsonType);
    return;
  }
  response.set_content(compact(JsonReference(json_pack("{s:I}", "jobid", static_cast<json_int_t>(id)))), kJsonType);
}

// Runs after every answer has been made.
void MasterSimulator::Impl::recordRequest(const httplib::Request& request, int status) {
  port::MutexLock lock(m_mutex);
  if (request.path.compare(0, 5, "/sim/") == 0) return;
  RecordedRequest recorded{request.method, request.path, {}, request.body, request.remote_port, status};
  for (const auto& header : request.headers) {
    bool serverMade = false;
    for (const char* name : kServerMadeHeaders) serverMade = serverMade || header.first == name;
    if (serverMade) continue;
    std::string& value = recorded.headers[header.first];
    value += (value.empty() ? "" : ", ") + header.second;
  }
  m_requests.push_back(std::move(recorded));
}

std::string MasterSimulator::Impl::requestsJson() const {
  const JsonReference all(json_array());
  port::MutexLock lock(m_mutex);
  for (const RecordedRequest& request : m_requests) {
    json_t* headers = json_object();
    for (const auto& header : request.headers) {
      json_object_set_new(headers, header.first.c_str(), textValue(header.second));
    }
    json_array_append_new(
        all.get(), json_pack("{s:o,s:o,s:o,s:o,s:i,s:i}", "method", textValue(request.method), "path",
                             textValue(request.path), "headers", headers, "body", textValue(request.body), "remotePort",
                             request.remotePort, "status", request.status));
  }
  return compact(all);
}

MasterSimulator::MasterSimulator(MasterSimulatorOptions options) : m_impl(new Impl(std::move(options))) {
  m_impl->addRoutes();
}

MasterSimulator::~MasterSimulator() { stop(); }

bool MasterSimulator::start() {
  if (m_impl->m_started) return m_impl->m_port > 0;
  m_impl->m_started = true;
  const MasterSimulatorOptions& options = m_impl->m_options;
  if (!m_impl->m_server->is_valid()) return false;
  if (options.port == 0) {
    m_impl->m_port = m_impl->m_server->bind_to_any_port(options.host);
  } else if (m_impl->m_server->bind_to_port(options.host, options.port)) {
    m_impl->m_port = options.port;
  }
  if (m_impl->m_port <= 0) return false;
  m_impl->m_serverThread = std::thread([this] { m_impl->serve(); });
  // The socket already queues connections; stop() works only once the server
  // loop runs, so wait for that.
  port::MutexLock lock(m_impl->m_servingMutex);
  m_impl->m_servingAnnounced.wait(m_impl->m_servingMutex,
                                  [this]() REQUIRES(m_impl->m_servingMutex) { return m_impl->m_serverLoopEntered; });
  return m_impl->m_server->is_running();
}

void MasterSimulator::stop() {
  if (!m_impl->m_serverThread.joinable()) return;
  m_impl->m_server->stop();
  m_impl->m_serverThread.join();
}

int MasterSimulator::port() const { return m_impl->m_port; }

std::string MasterSimulator::url() const {
  return (m_impl->m_options.tlsCertFile.empty() ? "http://" : "https://") + m_impl->m_options.host + ":" +
         std::to_string(m_impl->m_port);
}

int64_t MasterSimulator::createJob(const std::string& policy) {
  port::MutexLock lock(m_impl->m_mutex);
  return m_impl->startJob(policy, m_impl->m_options.jobFaults);
}

void MasterSimulator::setPolicyFaults(const std::string& policy, const PolicyFaults& faults) {
  port::MutexLock lock(m_impl->m_mutex);
  m_impl->m_policyFaults[policy] = faults;
}

void MasterSimulator::unavailableFor(double seconds) { m_impl->unavailableFor(seconds); }

void MasterSimulator::advanceTime(double seconds) {
  port::MutexLock lock(m_impl->m_mutex);
  m_impl->m_timeAdded += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::vector<RecordedRequest> MasterSimulator::requests() const {
  port::MutexLock lock(m_impl->m_mutex);
  return m_impl->m_requests;
}

std::string MasterSimulator::requestsJson() const { return m_impl->requestsJson(); }

}  // namespace master_sim
