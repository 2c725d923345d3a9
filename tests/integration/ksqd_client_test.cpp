// The request-daemon stand-in against the master simulator on loopback, and
// the base URLs of both libcurl stand-ins.
#include "platform/ksqd_client.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
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
// connection open, and closes the connection of every later request after
// reading it, without an answer.
class ClosingDaemon {
 public:
  ClosingDaemon() {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
    listen(listener_, 8);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~ClosingDaemon() {
    stop_ = true;
    thread_.join();
    close(listener_);
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  int requests() const { return requests_; }

 private:
  struct Connection {
    int fd;
    std::string received;
  };

  void serve() {
    std::vector<Connection> connections;
    while (!stop_) {
      std::vector<pollfd> watched{{listener_, POLLIN, 0}};
      for (const Connection& c : connections) watched.push_back({c.fd, POLLIN, 0});
      if (poll(watched.data(), watched.size(), 20) <= 0) continue;
      if (watched[0].revents != 0) connections.push_back({accept(listener_, nullptr, nullptr), ""});
      for (size_t i = 1; i < watched.size(); ++i) {
        if (watched[i].revents == 0) continue;
        Connection& c = connections[i - 1];
        char buffer[4096];
        const ssize_t got = read(c.fd, buffer, sizeof buffer);
        if (got > 0) c.received.append(buffer, static_cast<size_t>(got));
        const size_t end = c.received.find("\r\n\r\n");
        if (got > 0 && (end == std::string::npos || c.received.size() < end + 4 + 18)) continue;
        // A whole request (its 18-byte body included), or the client hung up.
        if (got > 0 && ++requests_ == 1) {
          c.received.clear();
          const char answer[] = "HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\n{\"jobid\": 1}";
          EXPECT_EQ(write(c.fd, answer, sizeof answer - 1), static_cast<ssize_t>(sizeof answer - 1));
          continue;
        }
        close(c.fd);
        c.fd = -1;
      }
      connections.erase(std::remove_if(connections.begin(), connections.end(),
                                       [](const Connection& c) { return c.fd < 0; }),
                        connections.end());
    }
    for (const Connection& c : connections) close(c.fd);
  }

  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> requests_{0};
  std::thread thread_;
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
    const char* logged;  // in the one level-16 line
  } cases[] = {
      {"ksqd_url", "file:///x", "ksqd_url \"file:///x\" in "},
      {"ksqd_url", "127.0.0.1:8557", "ksqd_url \"127.0.0.1:8557\" in "},
      {"ksqd_url", "", "POST http://127.0.0.1:8557/ksqd/1 failed: "},
      {"rest_url", "ftp://127.0.0.1", "rest_url \"ftp://127.0.0.1\" in "},
      {"rest_url", "", "GET https://127.0.0.1:1556/keepstone/admin/jobs/1 failed: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.key) + " = " + c.value);
    integration::writeConfig(std::string("server = 127.0.0.1\nhttp_timeout = 5\n") + c.key + " = " + c.value + "\n");
    const size_t logStart = integration::logText().size();
    if (std::string(c.key) == "ksqd_url") {
      char* answer = nullptr;
      EXPECT_LT(invoke_ksqd_cct_request("127.0.0.1", 1, policy("gold").c_str(), &answer), 0);
      EXPECT_EQ(answer, nullptr);
    } else {
      KSCurlResponse response{};
      KSCurlWrapper().makeRequest(params, response);
      EXPECT_EQ(response.statusCode, 0);
    }
    const std::string log = integration::logText().substr(logStart);
    EXPECT_THAT(log, HasSubstr(c.logged));
    EXPECT_EQ(log.find(" 16 "), log.rfind(" 16 ")) << log;
  }
  EXPECT_TRUE(master_.requests().empty());
}

TEST_F(KsqdClient, PostsTheRequestAsIsAndHandsBackTheAnswer) {
  char* answer = nullptr;
  EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, policy("gold").c_str(), &answer), 0);
  EXPECT_EQ(takeAnswer(answer), R"({"jobid":1000})");

  const std::vector<master_sim::RecordedRequest> seen = master_.requests();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].method, "POST");
  EXPECT_EQ(seen[0].path, "/ksqd/1");
  EXPECT_EQ(seen[0].body, policy("gold"));
  const std::map<std::string, std::string> headers{{"Accept", "*/*"},
                                                   {"Content-Length", std::to_string(policy("gold").size())},
                                                   {"Content-Type", "application/json"},
                                                   {"Host", "127.0.0.1:" + std::to_string(master_.port())},
                                                   {"X-Keepstone-Master", "m1"}};
  EXPECT_EQ(seen[0].headers, headers);
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
      {"refused", {500, 0, false}, 500, "<null>"},
      {"unknown", {404, 0, false}, 404, "<null>"},
  };
  for (const auto& c : cases) {
    master_.setPolicyFaults(c.policy, c.faults);
    char* answer = nullptr;
    EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, policy(c.policy).c_str(), &answer), c.result) << c.policy;
    EXPECT_EQ(takeAnswer(answer).substr(0, c.answer.size()), c.answer) << c.policy;
  }
}

TEST_F(KsqdClient, NoDaemonIsTheNegatedLibcurlErrorAndOneLogLine) {
  master_.stop();
  char* answer = nullptr;
  EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, policy("gold").c_str(), &answer), -7);
  EXPECT_EQ(answer, nullptr);
  const std::string log = newLog();
  EXPECT_THAT(log, HasSubstr(" 16 invoke_ksqd_cct_request: POST " + master_.url() + "/ksqd/1 failed: "));
  EXPECT_THAT(log, HasSubstr("(libcurl error 7)\n"));
  EXPECT_EQ(log.find('\n'), log.size() - 1) << log;
}

}  // namespace
