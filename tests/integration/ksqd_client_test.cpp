// The request-daemon stand-in against a real HTTP server on loopback.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>

#include "loopback_http_server.h"
#include "platform/ksqd_client.h"
#include "platform/standin/config_file.h"
#include "platform/standin/ksqd_url.h"
#include "scripted_daemon.h"
#include "standin_environment.h"

namespace {

const char kGold[] = R"({"policy": "gold"})";

// The answer text, which the caller owns, or "<null>".
std::string takeAnswer(char* answer) {
  const std::string text = answer != nullptr ? answer : "<null>";
  std::free(answer);
  return text;
}

TEST(KsqdClient, PostsTheRequestWithTheMastersNameAndHandsBackTheBody) {
  integration::ScriptedDaemon daemon;
  daemon.body = R"({"jobid": 4711})";
  integration::LoopbackHttpServer server([&](httplib::Server& s) { daemon.routes(s); });
  integration::writeConfig("server = elsewhere\nksqd_url = " + server.url() + "\n");

  char* answer = nullptr;
  EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, kGold, &answer), 0);

  EXPECT_EQ(takeAnswer(answer), R"({"jobid": 4711})");
  std::lock_guard<std::mutex> lock(daemon.mutex);
  EXPECT_EQ(daemon.received.method, "POST");
  EXPECT_EQ(daemon.received.path, "/ksqd/1");
  EXPECT_EQ(daemon.received.contentType, "application/json");
  EXPECT_EQ(daemon.received.master, "m1");
  EXPECT_EQ(daemon.received.body, kGold);
}

TEST(KsqdClient, MapsTheHttpAnswerToTheResult) {
  const struct {
    int status;
    std::string body;
    std::string ksqdStatus;
    int result;
    std::string answer;
  } cases[] = {
      {200, R"({"jobid": 1})", "", 0, R"({"jobid": 1})"},
      {201, "created", "", 0, "created"},
      {204, "", "", 0, ""},
      {200, "ok", "5", 0, "ok"},
      {404, R"({"errorCode": 404})", "", 404, "<null>"},
      {500, "", "", 500, "<null>"},
      {302, "", "", 302, "<null>"},
      {503, "busy", "42", 42, "<null>"},
      {500, "", "-3", -3, "<null>"},
      {409, "", "0", 409, "<null>"},
      {400, "", "not a number", 400, "<null>"},
      {400, "", "99999999999", 400, "<null>"},
  };
  for (const auto& c : cases) {
    integration::ScriptedDaemon daemon;
    daemon.status = c.status;
    daemon.body = c.body;
    daemon.ksqdStatus = c.ksqdStatus;
    integration::LoopbackHttpServer server([&](httplib::Server& s) { daemon.routes(s); });
    integration::writeConfig("ksqd_url = " + server.url() + "/\n");

    char* answer = nullptr;
    EXPECT_EQ(invoke_ksqd_cct_request("m1", 7, kGold, &answer), c.result) << c.status << " " << c.ksqdStatus;
    EXPECT_EQ(takeAnswer(answer), c.answer) << c.status << " " << c.ksqdStatus;
    std::lock_guard<std::mutex> lock(daemon.mutex);
    EXPECT_EQ(daemon.received.path, "/ksqd/7");
  }
}

// A loopback port that refuses connections: bound, but not listening.
class RefusingPort {
 public:
  RefusingPort() : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (socket_ < 0 || bind(socket_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      ADD_FAILURE() << "cannot bind a loopback port";
    }
    port_ = ntohs(address.sin_port);
  }
  ~RefusingPort() { close(socket_); }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  int socket_;
  int port_ = 0;
};

TEST(KsqdClient, NoAnswerIsTheNegatedLibcurlErrorAndOneLogLine) {
  RefusingPort port;
  integration::writeConfig("ksqd_url = " + port.url() + "\n");
  const size_t logged = integration::logText().size();

  char* answer = nullptr;
  EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, kGold, &answer), -7);

  EXPECT_EQ(answer, nullptr);
  const std::string added = integration::logText().substr(logged);
  const std::string prefix = " 16 invoke_ksqd_cct_request: POST " + port.url() + "/ksqd/1 failed: ";
  EXPECT_NE(added.find(prefix), std::string::npos) << added;
  EXPECT_NE(added.find("(libcurl error 7)\n"), std::string::npos) << added;
  EXPECT_EQ(added.find('\n'), added.size() - 1) << added;
}

TEST(KsqdClient, GivesUpAfterTheConfiguredTimeout) {
  std::mutex mutex;
  std::condition_variable changed;
  bool released = false;
  integration::LoopbackHttpServer server([&](httplib::Server& s) {
    s.Post("/ksqd/1", [&](const httplib::Request&, httplib::Response& response) {
      std::unique_lock<std::mutex> lock(mutex);
      changed.wait_for(lock, std::chrono::seconds(30), [&] { return released; });
      response.set_content("{}", "application/json");
    });
  });
  integration::writeConfig("ksqd_url = " + server.url() + "\nhttp_timeout = 1\n");
  const size_t logged = integration::logText().size();

  char* answer = nullptr;
  EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, kGold, &answer), -28);

  EXPECT_EQ(answer, nullptr);
  EXPECT_NE(integration::logText().substr(logged).find("(libcurl error 28)"), std::string::npos);
  {
    std::lock_guard<std::mutex> lock(mutex);
    released = true;
  }
  changed.notify_all();
}

TEST(KsqdClient, RefusesNullArgumentsWithoutSending) {
  char* answer = nullptr;
  EXPECT_EQ(invoke_ksqd_cct_request(nullptr, 1, kGold, &answer), EINVAL);
  EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, nullptr, &answer), EINVAL);
  EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, kGold, nullptr), EINVAL);
  EXPECT_EQ(invoke_ksqd_cct_request("m1\r\nX-Injected: 1", 1, kGold, &answer), EINVAL);
  EXPECT_EQ(answer, nullptr);
}

TEST(KsqdClient, RequestUrlComesFromTheSettingOrTheMasterServer) {
  const struct {
    std::string config;
    std::string master;
    int kind;
    std::string url;
  } cases[] = {
      {"", "m1", 1, "http://m1:8557/ksqd/1"},
      {"ksqd_url =\n", "m1", 1, "http://m1:8557/ksqd/1"},
      {"", "::1", 2, "http://[::1]:8557/ksqd/2"},
      {"ksqd_url = http://127.0.0.1:9\n", "m1", 1, "http://127.0.0.1:9/ksqd/1"},
      {"ksqd_url = https://d.example/base//\n", "m1", -1, "https://d.example/base/ksqd/-1"},
  };
  for (const auto& c : cases) {
    standin::ConfigValues values;
    ASSERT_EQ(standin::parseConfigText(c.config, values), 0);
    EXPECT_EQ(standin::ksqdRequestUrl(values, c.master, c.kind), c.url) << c.config;
  }
}

}  // namespace
