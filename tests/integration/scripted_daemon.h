// A request daemon for tests: answers every POST /ksqd/<kind> as scripted and
// notes what the last request carried.
#ifndef KSCDP_TESTS_INTEGRATION_SCRIPTED_DAEMON_H_
#define KSCDP_TESTS_INTEGRATION_SCRIPTED_DAEMON_H_

#include <httplib.h>

#include <mutex>
#include <string>

namespace integration {

// What the server saw of the one request it got.
struct Received {
  std::string method, path, contentType, body, master;
};

// Answers with `status`, `body` and, when not empty, an X-Ksqd-Status header.
struct ScriptedDaemon {
  int status = 200;
  std::string body;
  std::string ksqdStatus;

  std::mutex mutex;
  Received received;

  void routes(httplib::Server& server) {
    server.Post(R"(/ksqd/(-?\d+))", [this](const httplib::Request& request, httplib::Response& response) {
      std::lock_guard<std::mutex> lock(mutex);
      received = {request.method, request.path, request.get_header_value("Content-Type"), request.body,
                  request.get_header_value("X-Keepstone-Master")};
      response.status = status;
      if (!ksqdStatus.empty()) response.set_header("X-Ksqd-Status", ksqdStatus);
      response.set_content(body, "application/json");
    });
  }
};

}  // namespace integration

#endif  // KSCDP_TESTS_INTEGRATION_SCRIPTED_DAEMON_H_
