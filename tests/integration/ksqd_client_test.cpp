// The request-daemon stand-in against the master simulator on loopback, and
// the base URLs of both libcurl stand-ins.
#include "platform/ksqd_client.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "rest/CCTCurlWrapper.h"
#include "standin_environment.h"

namespace {

using ::testing::HasSubstr;

// The answer, which the caller owns, or "<null>".
std::string takeAnswer(char* answer) {
  const std::string text = answer != nullptr ? answer : "<null>";
  std::free(answer);
  return text;
}

std::string policy(const std::string& name) { return R"({"policy": ")" + name + R"("})"; }

using KsqdClient = integration::MasterOnLoopback;

// A daemon on loopback that answers the first request it reads, keeping that
// connection open, and drops the connection of every later request after
// reading it, unanswered. Counts the requests.
class ClosingDaemon {
 public:
  ClosingDaemon() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
    listen(listener_, 8);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] {
      for (int fd; (fd = accept(listener_, nullptr, nullptr)) >= 0;) {
        connections_.push_back(fd);  // only this thread, until it is joined
        workers_.emplace_back([this, fd] { serve(fd); });
      }
    });
  }
  ~ClosingDaemon() {
    shutdown(listener_, SHUT_RDWR);  // ends the accept()
    acceptor_.join();
    for (int fd : connections_) shutdown(fd, SHUT_RDWR);  // ends every read()
    for (std::thread& worker : workers_) worker.join();
    for (int fd : connections_) close(fd);
    close(listener_);
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  int requests() const { return requests_; }

 private:
  // Reads one request, its 18-byte body included; false when the client hung up.
  static bool readRequest(int fd) {
    std::string received;
    char buffer[4096];
    for (size_t end; (end = received.find("\r\n\r\n")) == std::string::npos || received.size() < end + 4 + 18;) {
      const ssize_t got = read(fd, buffer, sizeof buffer);
      if (got <= 0) return false;
      received.append(buffer, static_cast<size_t>(got));
    }
    return true;
  }

  void serve(int fd) {
    while (readRequest(fd) && ++requests_ == 1) {
      const char answer[] = "HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\n{\"jobid\": 1}";
      EXPECT_EQ(write(fd, answer, sizeof answer - 1), static_cast<ssize_t>(sizeof answer - 1));
    }
    shutdown(fd, SHUT_RDWR);
  }

  const int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int port_ = 0;
  std::atomic<int> requests_{0};
  std::vector<int> connections_;
  std::vector<std::thread> workers_;
  std::thread acceptor_;
};

TEST_F(KsqdClient, ARequestIsSentOnceEvenWhenTheDaemonDropsTheConnection) {
  ClosingDaemon daemon;
  integration::writeConfig("server = 127.0.0.1\nhttp_timeout = 5\nksqd_url = " + daemon.url() + "\n");
  char* answer = nullptr;
  ASSERT_EQ(invoke_ksqd_cct_request("m1", 1, policy("gold").c_str(), &answer), 0);
  EXPECT_EQ(takeAnswer(answer), R"({"jobid": 1})");

  answer = nullptr;
  EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, policy("gold").c_str(), &answer), -52);  // got nothing
  EXPECT_EQ(answer, nullptr);
  EXPECT_EQ(daemon.requests(), 2);
}

TEST_F(KsqdClient, BaseUrlsOtherThanHttpFailWithOneLineNamingTheKeyAndEmptyMeansDefault) {
  KSCurlRequestParams params;
  params.uri = "keepstone/admin/jobs/1";
  params.requestType = 0;
  const struct {
    const char* key;
    const char* value;
    const char* logged;  // the one level-16 line
    int result;           // of the daemon call: the negated libcurl error
  } cases[] = {
      {"ksqd_url", "file:///x", "invoke_ksqd_cct_request: ksqd_url \"file:///x\" in ", -1},
      // Nothing listens on the default port.
      {"ksqd_url", "", "invoke_ksqd_cct_request: POST http://127.0.0.1:8557/ksqd/1 failed: ", -7},
      {"rest_url", "ftp://127.0.0.1", "KSClientCURL::get: rest_url \"ftp://127.0.0.1\" in ", 0},
      {"rest_url", "", "KSClientCURL::get: GET https://127.0.0.1:1556/keepstone/admin/jobs/1 failed: ", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.key) + " = " + c.value);
    integration::writeConfig(std::string("server = 127.0.0.1\nhttp_timeout = 5\n") + c.key + " = " + c.value + "\n");
    const size_t logStart = integration::logText().size();
    if (std::string(c.key) == "ksqd_url") {
      char* answer = nullptr;
      EXPECT_EQ(invoke_ksqd_cct_request("127.0.0.1", 1, policy("gold").c_str(), &answer), c.result);
      EXPECT_EQ(answer, nullptr);
    } else {
      KSCurlResponse response{0, "earlier", ""};
      EXPECT_EQ(KSCurlWrapper().makeRequest(params, response), 0);
      EXPECT_EQ(response.statusCode, 0);
      EXPECT_EQ(response.message, "");
    }
    const std::string log = integration::logText().substr(logStart);
    EXPECT_THAT(log, HasSubstr(" 16 " + std::string(c.logged)));
    EXPECT_EQ(log.find(" 16 "), log.rfind(" 16 ")) << log;
    if (c.result < -1) {
      EXPECT_THAT(log, HasSubstr("(libcurl error " + std::to_string(-c.result) + ")\n"));
    }
  }
  EXPECT_TRUE(master_.requests().empty());
}

TEST_F(KsqdClient, FailureIsTheDaemonsStatusElseTheHttpStatus) {
  const struct {
    const char* policy;
    master_sim::PolicyFaults faults;
    int result;
    std::string answer;
  } cases[] = {
      {"not json", {0, 0, true}, 0, "<"},
      {"refused by daemon", {503, 42, false}, 42, "<null>"},
      {"negative daemon status", {500, -3, false}, -3, "<null>"},
      {"unknown", {404, 0, false}, 404, "<null>"},
  };
  for (const auto& c : cases) {
    master_.setPolicyFaults(c.policy, c.faults);
    char* answer = nullptr;
    EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, policy(c.policy).c_str(), &answer), c.result) << c.policy;
    EXPECT_EQ(takeAnswer(answer).substr(0, c.answer.size()), c.answer) << c.policy;
  }
}

}  // namespace
