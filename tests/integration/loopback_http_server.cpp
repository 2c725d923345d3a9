#include "loopback_http_server.h"

#include <chrono>
#include <stdexcept>

namespace integration {

LoopbackHttpServer::LoopbackHttpServer(const std::function<void(httplib::Server&)>& routes) {
  routes(server_);
  // One request per connection: a client's idle keep-alive connection would
  // otherwise hold stop() for the server's keep-alive timeout.
  server_.set_keep_alive_max_count(1);
  // The socket listens from here on: requests wait in its backlog until the
  // thread accepts them.
  port_ = server_.bind_to_any_port("127.0.0.1");
  if (port_ < 0) throw std::runtime_error("cannot bind a loopback port");
  thread_ = std::thread([this] {
    server_.listen_after_bind();
    finished_ = true;
  });
}

LoopbackHttpServer::~LoopbackHttpServer() {
  // stop() is lost on a server that has not started running yet.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!server_.is_running() && !finished_ && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  server_.stop();
  thread_.join();
}

std::string LoopbackHttpServer::url() const { return "http://127.0.0.1:" + std::to_string(port_); }

}  // namespace integration
