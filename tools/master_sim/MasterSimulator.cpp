#include "master_sim/MasterSimulator.h"

#include <httplib.h>
#include <jansson.h>

#include <charconv>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "port/mutex.h"

namespace master_sim {

const char kJobsMediaType[] = "application/vnd.keepstone+json;version=6.0";

namespace {

using Clock = std::chrono::steady_clock;

const char kJsonType[] = "application/json";
const char kNotJson[] = "<html><body>Service temporarily unavailable</body></html>";
const char kNotJsonType[] = "text/html";
// A stopped server still serves each open connection until its client closes
// it or it has been idle this long, so stop() waits this long at most. The
// server counts whole seconds, and at 0 it would also drop a new connection
// whose first request is a few milliseconds late.
const time_t kKeepAliveSeconds = 1;
// Headers that the HTTP server adds to a request itself; no client sent them.
const char* const kServerMadeHeaders[] = {"REMOTE_ADDR", "REMOTE_PORT", "LOCAL_ADDR", "LOCAL_PORT"};

struct JsonRelease {
  void operator()(json_t* value) const { json_decref(value); }
};
using Json = std::unique_ptr<json_t, JsonRelease>;

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

std::string compact(const Json& value) {
  char* text = value ? json_dumps(value.get(), JSON_COMPACT) : nullptr;
  if (text == nullptr) return "{}";
  std::string result(text);
  std::free(text);
  return result;
}

std::string errorDocument(int code, const std::string& message) {
  return compact(Json(json_pack("{s:i,s:o}", "errorCode", code, "errorMessage", textValue(message))));
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
      : options(std::move(simOptions)), nextJobId(options.firstJobId), jobFaults(options.jobFaults) {}

  void addRoutes();
  // Serves until stop(); run on serverThread.
  void serve();
  void announceServing();
  void answerJob(const httplib::Request& request, httplib::Response& response);
  void answerDaemon(const httplib::Request& request, httplib::Response& response);
  void finishAnswer(const httplib::Request& request, httplib::Response& response);
  std::string requestsJson() const;
  int64_t startJob(const std::string& policy, const JobFaults& faults) REQUIRES(mutex);
  const char* stateOf(const Job& job) const REQUIRES(mutex);

  const MasterSimulatorOptions options;
  httplib::Server server;
  std::thread serverThread;
  int port = -1;
  bool started = false;

  port::Mutex servingMutex;
  port::CondVar servingAnnounced;
  // True once the server loop runs, or once the server thread ends without it.
  bool serverLoopEntered GUARDED_BY(servingMutex) = false;

  mutable port::Mutex mutex;
  int64_t nextJobId GUARDED_BY(mutex);
  JobFaults jobFaults GUARDED_BY(mutex);
  std::map<int64_t, Job> jobs GUARDED_BY(mutex);
  std::map<std::string, PolicyFaults> policyFaults GUARDED_BY(mutex);
  std::map<std::string, std::string> responseHeaders GUARDED_BY(mutex);
  Clock::duration timeAdded GUARDED_BY(mutex){};
  std::vector<RecordedRequest> requests;
};

void MasterSimulator::Impl::addRoutes() {
  // Connections stay open for as many requests as a client sends.
  server.set_keep_alive_max_count(1000000);
  server.set_keep_alive_timeout(kKeepAliveSeconds);
  // Headers and body go out in separate writes; without this the body waits
  // for the client's delayed acknowledgement.
  server.set_tcp_nodelay(true);
  server.Get(R"(/keepstone/admin/jobs/([^/]+))",
             [this](const httplib::Request& request, httplib::Response& response) {
               answerJob(request, response);
             });
  server.Post(R"(/ksqd/([^/]+))", [this](const httplib::Request& request, httplib::Response& response) {
    answerDaemon(request, response);
  });
  server.Get("/sim/requests", [this](const httplib::Request&, httplib::Response& response) {
    response.set_content(requestsJson(), kJsonType);
  });
  server.set_post_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
    finishAnswer(request, response);
  });
}

void MasterSimulator::Impl::serve() {
  // The server makes its task queue once its loop runs, when stop() can end
  // it; that is the moment start() waits for.
  server.new_task_queue = [this] {
    announceServing();
    return new httplib::ThreadPool(CPPHTTPLIB_THREAD_POOL_COUNT);
  };
  server.listen_after_bind();
  announceServing();  // in case the loop never ran
}

void MasterSimulator::Impl::announceServing() {
  {
    port::MutexLock lock(servingMutex);
    serverLoopEntered = true;
  }
  servingAnnounced.notifyAll();
}

int64_t MasterSimulator::Impl::startJob(const std::string& policy, const JobFaults& faults) {
  const int64_t id = nextJobId++;
  jobs[id] = Job{policy, Clock::now() + timeAdded, faults, 0};
  return id;
}

const char* MasterSimulator::Impl::stateOf(const Job& job) const {
  const double age = std::chrono::duration<double>(Clock::now() + timeAdded - job.started).count();
  if (age >= options.jobSeconds) return "DONE";
  return age >= options.jobSeconds / 2 ? "ACTIVE" : "QUEUED";
}

void MasterSimulator::Impl::answerJob(const httplib::Request& request, httplib::Response& response) {
  if (request.get_header_value("Accept") != options.jobsMediaType) {
    response.status = 406;
    response.set_content(errorDocument(406, "Not acceptable: jobs are served as " + options.jobsMediaType),
                         kJsonType);
    return;
  }
  const std::string idText = request.matches[1];
  int64_t id = 0;
  port::MutexLock lock(mutex);
  const auto found = parseJobId(idText, id) ? jobs.find(id) : jobs.end();
  if (found == jobs.end() || found->second.polls++ < found->second.faults.unknownForPolls) {
    response.status = 404;
    response.set_content(errorDocument(404, "No job with id " + idText), kJsonType);
    return;
  }
  const Job& job = found->second;
  if (job.faults.bodyNotJson) {
    response.set_content(kNotJson, kNotJsonType);
    return;
  }
  const Json document(json_pack("{s:{s:s,s:o,s:{s:I,s:s,s:o,s:s,s:i}}}", "data", "type", "job", "id",
                                textValue(idText), "attributes", "jobId", static_cast<json_int_t>(id),
                                "jobType", "BACKUP", "policyName", textValue(job.policy), "state",
                                stateOf(job), "status", 0));
  response.set_content(compact(document), kJobsMediaType);
}

void MasterSimulator::Impl::answerDaemon(const httplib::Request& request, httplib::Response& response) {
  const Json body(json_loadb(request.body.data(), request.body.size(), 0, nullptr));
  json_t* policyValue = json_object_get(body.get(), "policy");
  if (!json_is_string(policyValue)) {
    response.status = 400;
    response.set_content(errorDocument(400, "The request must be a JSON object with a string \"policy\""),
                         kJsonType);
    return;
  }
  const std::string policy(json_string_value(policyValue), json_string_length(policyValue));
  port::MutexLock lock(mutex);
  const auto fault = policyFaults.find(policy);
  if (fault != policyFaults.end() && fault->second.httpStatus != 0) {
    response.status = fault->second.httpStatus;
    if (fault->second.daemonStatus != 0) {
      response.set_header("X-Ksqd-Status", std::to_string(fault->second.daemonStatus));
    }
    response.set_content(errorDocument(fault->second.httpStatus, "Backup request for policy " + policy + " failed"),
                         kJsonType);
    return;
  }
  if (fault != policyFaults.end() && fault->second.answerNotJson) {
    response.set_content(kNotJson, kNotJsonType);
    return;
  }
  const int64_t id = startJob(policy, jobFaults);
  response.set_content(compact(Json(json_pack("{s:I}", "jobid", static_cast<json_int_t>(id)))), kJsonType);
}

// Runs after every answer has been made: records the request and adds the
// configured headers.
void MasterSimulator::Impl::finishAnswer(const httplib::Request& request, httplib::Response& response) {
  port::MutexLock lock(mutex);
  for (const auto& header : responseHeaders) response.set_header(header.first, header.second);
  if (request.path.compare(0, 5, "/sim/") == 0) return;
  RecordedRequest recorded{request.method, request.path, {}, request.body, request.remote_port};
  for (const auto& header : request.headers) {
    bool serverMade = false;
    for (const char* name : kServerMadeHeaders) serverMade = serverMade || header.first == name;
    if (serverMade) continue;
    std::string& value = recorded.headers[header.first];
    value += (value.empty() ? "" : ", ") + header.second;
  }
  requests.push_back(std::move(recorded));
}

std::string MasterSimulator::Impl::requestsJson() const {
  const Json all(json_array());
  port::MutexLock lock(mutex);
  for (const RecordedRequest& request : requests) {
    json_t* headers = json_object();
    for (const auto& header : request.headers) {
      json_object_set_new(headers, header.first.c_str(), textValue(header.second));
    }
    json_array_append_new(all.get(), json_pack("{s:o,s:o,s:o,s:o,s:i}", "method", textValue(request.method),
                                               "path", textValue(request.path), "headers", headers, "body",
                                               textValue(request.body), "remotePort", request.remotePort));
  }
  return compact(all);
}

MasterSimulator::MasterSimulator(MasterSimulatorOptions options) : impl_(new Impl(std::move(options))) {
  impl_->addRoutes();
}

MasterSimulator::~MasterSimulator() { stop(); }

bool MasterSimulator::start() {
  if (impl_->started) return impl_->port > 0;
  impl_->started = true;
  const MasterSimulatorOptions& options = impl_->options;
  if (options.port == 0) {
    impl_->port = impl_->server.bind_to_any_port(options.host);
  } else if (impl_->server.bind_to_port(options.host, options.port)) {
    impl_->port = options.port;
  }
  if (impl_->port <= 0) return false;
  impl_->serverThread = std::thread([this] { impl_->serve(); });
  // The socket already queues connections; stop() works only once the server
  // loop runs, so wait for that.
  port::MutexLock lock(impl_->servingMutex);
  impl_->servingAnnounced.wait(impl_->servingMutex,
                               [this]() REQUIRES(impl_->servingMutex) { return impl_->serverLoopEntered; });
  return impl_->server.is_running();
}

void MasterSimulator::stop() {
  if (!impl_->serverThread.joinable()) return;
  impl_->server.stop();
  impl_->serverThread.join();
}

int MasterSimulator::port() const { return impl_->port; }

std::string MasterSimulator::url() const {
  return "http://" + impl_->options.host + ":" + std::to_string(impl_->port);
}

int64_t MasterSimulator::createJob(const std::string& policy) {
  port::MutexLock lock(impl_->mutex);
  return impl_->startJob(policy, impl_->jobFaults);
}

int64_t MasterSimulator::createJob(const std::string& policy, const JobFaults& faults) {
  port::MutexLock lock(impl_->mutex);
  return impl_->startJob(policy, faults);
}

void MasterSimulator::setJobFaults(const JobFaults& faults) {
  port::MutexLock lock(impl_->mutex);
  impl_->jobFaults = faults;
}

void MasterSimulator::setPolicyFaults(const std::string& policy, const PolicyFaults& faults) {
  port::MutexLock lock(impl_->mutex);
  impl_->policyFaults[policy] = faults;
}

void MasterSimulator::setResponseHeader(const std::string& name, const std::string& value) {
  port::MutexLock lock(impl_->mutex);
  impl_->responseHeaders[name] = value;
}

void MasterSimulator::advanceTime(double seconds) {
  port::MutexLock lock(impl_->mutex);
  impl_->timeAdded += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::vector<RecordedRequest> MasterSimulator::requests() const {
  port::MutexLock lock(impl_->mutex);
  return impl_->requests;
}

std::string MasterSimulator::requestsJson() const { return impl_->requestsJson(); }

}  // namespace master_sim
