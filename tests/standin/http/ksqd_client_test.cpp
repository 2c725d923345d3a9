// The request-daemon client against the master simulator.
#include "platform/ksqd_client.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <numeric>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "case_table.h"
#include "platform/ks_master_config.h"
#include "platform/ksu_log.h"
#include "rest/CCTCurlWrapper.h"
#include "standin_environment.h"

namespace {

using KsqdClient = integration::MasterOnLoopback;

// Armed, libcurl has no memory for a request's header list.
std::atomic<bool> g_noMemoryForHeaders{false};

}  // namespace

extern "C" curl_slist* curl_slist_append(curl_slist* list, const char* line) {
  using Append = curl_slist* (*)(curl_slist*, const char*);
  static const auto real = reinterpret_cast<Append>(dlsym(RTLD_NEXT, "curl_slist_append"));
  return g_noMemoryForHeaders ? nullptr : real(list, line);
}

namespace {

TEST_F(KsqdClient, FailureIsTheDaemonsStatusElseTheHttpStatus) {
  for (const cases::Row& c : cases::read("daemon_failures.cases")) {
    m_master.setPolicyFaults(c[0], {std::stoi(c[1]), std::stoi(c[2]), c[3] == "not-json", c[3] == "too-large"});
    char* answer = nullptr;
    const std::string request = R"({"policy": ")" + c[0] + "\"}";
    EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, request.c_str(), &answer), std::stoi(c[4])) << c[0];
    EXPECT_EQ(std::string(answer != nullptr ? answer : "<null>").substr(0, c[5].size()), c[5]) << c[0];
    std::free(answer);  // the caller's
  }
}

// A request daemon on loopback that answers the first request it reads and
// keeps that connection open, and drops the connection of every later request
// once it has read it, unanswered. Counts the requests.
class DroppingDaemon {
 public:
  DroppingDaemon() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(m_listener, reinterpret_cast<sockaddr*>(&address), length);
    listen(m_listener, 8);
    getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length);
    m_url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    m_thread = std::thread([this] { serve(); });
  }
  ~DroppingDaemon() {
    m_stop = true;
    m_thread.join();
  }

  const std::string& url() const { return m_url; }
  int requests() const { return m_requests; }

 private:
  // One thread polls the listener and every connection until stopped.
  void serve() {
    std::map<int, std::string> received;  // by connection
    while (!m_stop) {
      std::vector<pollfd> ready{{m_listener, POLLIN, 0}};
      for (const auto& connection : received) ready.push_back({connection.first, POLLIN, 0});
      if (poll(ready.data(), ready.size(), 20) <= 0) continue;
      if (ready[0].revents != 0) received[accept(m_listener, nullptr, nullptr)];
      for (size_t i = 1; i < ready.size(); ++i) {
        if (ready[i].revents == 0) continue;
        const int fd = ready[i].fd;
        char buffer[4096];
        const ssize_t got = read(fd, buffer, sizeof buffer);
        std::string& request = received[fd];
        if (got > 0) request.append(buffer, static_cast<size_t>(got));
        const size_t end = request.find("\r\n\r\n");
        const size_t length = std::strtoul(request.c_str() + request.find("Content-Length: ") + 16, nullptr, 10);
        if (got > 0 && (end == std::string::npos || request.size() < end + 4 + length)) continue;
        if (got > 0 && ++m_requests == 1) {
          const char answer[] = "HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\n{\"jobid\": 1}";
          request.clear();
          if (write(fd, answer, sizeof answer - 1) == static_cast<ssize_t>(sizeof answer - 1)) continue;
        }
        close(fd);
        received.erase(fd);
      }
    }
    for (const auto& connection : received) close(connection.first);
    close(m_listener);
  }

  const int m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::string m_url;
  std::atomic<int> m_requests{0};
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

// The HTTP client's payload operation POSTs JSON.
TEST_F(KsqdClient, APayloadRequestOfTheHttpClientIsAJsonPost) {
  const KSCurlRequestParams params{"ksqd/1", R"({"policy": "gold"})", PAYLOAD_REQUEST};
  KSCurlResponse response{0, "", ""};
  EXPECT_EQ(KSCurlWrapper().makeRequest(params, response), 0);
  ASSERT_EQ(m_master.requests().size(), 1u);
  EXPECT_EQ(m_master.requests()[0].method + " " + m_master.requests()[0].headers.at("Content-Type"),
            "POST application/json");
}

TEST_F(KsqdClient, ARequestIsSentOnceEvenWhenTheDaemonDropsTheConnection) {
  DroppingDaemon daemon;
  integration::writeConfig("server = 127.0.0.1\nhttp_timeout = 5\nksqd_url = " + daemon.url() + "\n");
  const char* request = R"({"policy": "gold"})";
  char* answer = nullptr;
  ASSERT_EQ(invoke_ksqd_cct_request("m1", 1, request, &answer), 0);
  EXPECT_STREQ(answer, R"({"jobid": 1})");
  std::free(answer);
  answer = nullptr;
  EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, request, &answer), -52);  // got nothing
  EXPECT_EQ(answer, nullptr);
  EXPECT_EQ(daemon.requests(), 2);
}

// A base URL that is not http or https is refused with one line naming its
// key; an empty one means the default on the master, where nothing listens.
TEST_F(KsqdClient, BaseUrlsOtherThanHttpFailWithOneLineNamingTheKeyAndEmptyMeansDefault) {
  for (const cases::Row& c : cases::read("base_urls.cases")) {
    SCOPED_TRACE(c[0] + " = " + c[1]);
    integration::writeConfig("server = 127.0.0.1\nhttp_timeout = 5\n" + c[0] + " = " + c[1] + "\n");
    const size_t logStart = integration::logText().size();
    g_noMemoryForHeaders = c.size() > 4;
    if (c[0] == "ksqd_url") {
      char* answer = nullptr;
      EXPECT_EQ(invoke_ksqd_cct_request("127.0.0.1", 1, R"({"policy": "gold"})", &answer), std::stoi(c[3]));
      EXPECT_EQ(answer, nullptr);
    } else {
      KSCurlRequestParams params;
      params.uri = "keepstone/admin/jobs/1";
      params.requestType = 0;
      KSCurlResponse response{0, "earlier", ""};
      EXPECT_EQ(KSCurlWrapper().makeRequest(params, response), 0);
      EXPECT_EQ(response.statusCode, 0);
      EXPECT_EQ(response.message, "");
    }
    g_noMemoryForHeaders = false;
    const std::string log = integration::logText().substr(logStart);
    EXPECT_THAT(log, ::testing::HasSubstr(" 16 " + c[2]));
    EXPECT_EQ(log.find(" 16 "), log.rfind(" 16 ")) << log;
    EXPECT_EQ(log.find("secret"), std::string::npos) << log;
  }
  EXPECT_TRUE(m_master.requests().empty());
}

}  // namespace
