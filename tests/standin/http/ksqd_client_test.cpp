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
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "case_table.h"
#include "platform/ks_curl_client.h"
#include "platform/ks_master_config.h"
#include "platform/ksu_log.h"
#include "rest/CCTCurlWrapper.h"
#include "rest/KeepstoneRestApi.h"
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

// A server on loopback that answers with {"jobid": 1} and keeps the
// connection open. Which requests it drops once it has read them, unanswered:
// every request after its first (closing the connection), or every request
// on a connection that it answered once already (resetting the connection,
// as a server that closed it while idle does when a request arrives).
// Counts the requests.
class DroppingServer {
 public:
  enum Drops { kEveryLaterRequest, kRequestsOnAnsweredConnections };

  explicit DroppingServer(Drops drops) : m_drops(drops) {
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
  ~DroppingServer() {
    m_stop = true;
    m_thread.join();
  }

  const std::string& url() const { return m_url; }
  int requests() const { return m_requests; }

 private:
  // One thread polls the listener and every connection until stopped.
  void serve() {
    std::map<int, std::string> received;  // by connection
    std::set<int> answered;               // connections answered once
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
        const size_t at = request.find("Content-Length: ");
        const size_t length = at == std::string::npos ? 0 : std::strtoul(request.c_str() + at + 16, nullptr, 10);
        if (got > 0 && (end == std::string::npos || request.size() < end + 4 + length)) continue;
        const bool answer = got > 0 && (m_drops == kEveryLaterRequest ? m_requests == 0 : answered.count(fd) == 0);
        if (got > 0) ++m_requests;
        if (answer) {
          const char text[] = "HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\n{\"jobid\": 1}";
          request.clear();
          answered.insert(fd);
          if (write(fd, text, sizeof text - 1) == static_cast<ssize_t>(sizeof text - 1)) continue;
        }
        if (m_drops == kRequestsOnAnsweredConnections) {
          const linger reset{1, 0};
          setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        }
        close(fd);
        received.erase(fd);
        answered.erase(fd);
      }
    }
    for (const auto& connection : received) close(connection.first);
    close(m_listener);
  }

  const Drops m_drops;
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
  DroppingServer daemon(DroppingServer::kEveryLaterRequest);
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

// The jobs client hands back the master's status code and body as they came,
// for an answer that is not 200 as much as for one that is.
TEST_F(KsqdClient, TheJobsClientHandsBackTheStatusAndBodyOfEachAnswer) {
  const int64_t job = m_master.createJob("gold");
  struct Case {
    std::string path;
    std::string accept;
    long status;
    std::string bodyStart;
  } cases[] = {
      {std::string(keepstone_rest::kJobsPath) + std::to_string(job), keepstone_rest::kVersionedMediaType, 200,
       R"({"data":{"type":"job","id":")" + std::to_string(job)},
      {std::string(keepstone_rest::kJobsPath) + "999999", keepstone_rest::kVersionedMediaType, 404,
       R"({"errorCode":404)"},
      {std::string(keepstone_rest::kJobsPath) + std::to_string(job), "application/json", 406, R"({"errorCode":406)"},
  };
  const bool cancel = false;  // read through a reference while the client lives
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path + " " + c.accept);
    KSClientCURL client("127.0.0.1", 0, CERT_TYPE_PEM, KS_CURL_SESSION_SHARED, nullptr, "", true, false, false, "", "",
                        "", "", "", "", false, cancel, "", 0);
    client.setupAcceptCurlOption(c.accept);
    EXPECT_EQ(client.get(c.path), 0);
    EXPECT_EQ(client.m_responseCode, c.status);
    EXPECT_EQ(client.m_responseBody.substr(0, c.bodyStart.size()), c.bodyStart);
  }
}

// A poll whose kept-alive connection the server resets on receiving it goes
// again on a new connection, and the call succeeds, however often that
// happens to the pooled handle that carries the polls.
TEST_F(KsqdClient, APollThatFindsItsKeptConnectionResetGoesAgainOnANewOne) {
  DroppingServer master(DroppingServer::kRequestsOnAnsweredConnections);
  integration::writeConfig("server = 127.0.0.1\nhttp_timeout = 5\nrest_url = " + master.url() + "\n");
  const bool cancel = false;  // read through a reference while a client lives
  const int polls = 8;
  for (int poll = 1; poll <= polls; ++poll) {
    KSClientCURL client("127.0.0.1", 0, CERT_TYPE_PEM, KS_CURL_SESSION_SHARED, nullptr, "", true, false, false, "", "",
                        "", "", "", "", false, cancel, "", 0);
    EXPECT_EQ(client.get("keepstone/admin/jobs/1"), 0) << poll;
    EXPECT_EQ(client.m_responseCode, 200) << poll;
  }
  EXPECT_EQ(master.requests(), 1 + 2 * (polls - 1));  // each later poll reset once, then sent again
  EXPECT_EQ(newLog().find(" 16 "), std::string::npos) << newLog();
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
