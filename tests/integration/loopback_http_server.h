// A real HTTP server on 127.0.0.1 and a free port, serving from its own
// thread for the life of the object.
#ifndef KSCDP_TESTS_INTEGRATION_LOOPBACK_HTTP_SERVER_H_
#define KSCDP_TESTS_INTEGRATION_LOOPBACK_HTTP_SERVER_H_

#include <httplib.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace integration {

class LoopbackHttpServer {
 public:
  // `routes` registers the handlers before the server starts.
  explicit LoopbackHttpServer(const std::function<void(httplib::Server&)>& routes);
  // Stops serving and joins the thread; handlers must not be blocked then.
  ~LoopbackHttpServer();
  LoopbackHttpServer(const LoopbackHttpServer&) = delete;
  LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

  // "http://127.0.0.1:<port>"
  std::string url() const;

 private:
  httplib::Server server_;
  int port_ = -1;
  std::atomic<bool> finished_{false};
  std::thread thread_;
};

}  // namespace integration

#endif  // KSCDP_TESTS_INTEGRATION_LOOPBACK_HTTP_SERVER_H_
