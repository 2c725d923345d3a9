// The stand-in master configuration and log, through their real files, and
// the request-daemon client against the master simulator.
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
#include "platform/ksqd_client.h"
#include "platform/ksu_log.h"
#include "rest/CCTCurlWrapper.h"
#include "standin_environment.h"

namespace {

TEST(MasterConfigFile, EveryReadLoadsWhatTheFileSaysNow) {
  for (const cases::Row& c : cases::read("master_configs.cases")) {
    SCOPED_TRACE(c[0]);
    if (c[0] != "-") {
      integration::writeConfig(c[0]);
    } else {
      integration::removeConfig();
    }
    EXPECT_EQ(KS_read_master_config(), std::stoi(c[1]));
    const ks_master_config* config = get_master_config_ptr();
    std::string servers;
    int listed = 0;
    for (; config->server_list != nullptr && config->server_list[listed] != nullptr; ++listed) {
      servers += (listed == 0 ? "" : ",") + std::string(config->server_list[listed]);
    }
    EXPECT_EQ(servers, c[2]);
    EXPECT_EQ(config->server_list == nullptr, c[1] != "0");
    EXPECT_EQ(config->server_count, listed);
    EXPECT_STREQ(config->host_name != nullptr ? config->host_name : "<none>", c[3].c_str());
  }
}

// An edit is seen by the next read even when it keeps the file's size and
// moves its modification time by a nanosecond only.
TEST(MasterConfigFile, AnEditOfTheSameSizeInTheSameSecondIsSeen) {
  const std::string path = std::getenv("KEEPSTONE_CONF");
  integration::writeConfig("server = before\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // its times are then to be trusted
  ASSERT_EQ(KS_read_master_config(), 0);
  struct stat read {};
  ASSERT_EQ(stat(path.c_str(), &read), 0);
  std::ofstream(path) << "server = after!\n";  // in place: the same inode
  timespec times[2] = {read.st_atim, read.st_mtim};
  times[1].tv_nsec = read.st_mtim.tv_nsec > 0 ? read.st_mtim.tv_nsec - 1 : 1;
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  ASSERT_EQ(KS_read_master_config(), 0);
  EXPECT_STREQ(get_master_config_ptr()->server_list[0], "after!");
}

TEST(StandinLog, WritesOneEscapedRecordALineWithTheWritersProcessId) {
  const size_t before = integration::logText().size();
  ksu_logmsg_str(16, "Some::function",
                 "a\\b\nc\rd\te\x01\x1f"
                 "f\x7f\xc3\xa9 \"q\"");
  ksu_logmsg_str(2, "other", "");
  const std::string added = integration::logText().substr(before);
  const std::string stamp = "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z " + std::to_string(getpid());
  const std::regex expected(stamp + " 16 Some::function: a\\\\\\\\b\\\\nc\\\\rd\\\\te\\\\x01\\\\x1f" +
                            "f\x7f\xc3\xa9 \"q\"\n" + stamp + " 2 other: \n");
  EXPECT_TRUE(std::regex_match(added, expected)) << added;

  const pid_t child = fork();  // whose records carry its own process id
  if (child == 0) {
    ksu_logmsg_str(2, "child", "");
    _exit(0);
  }
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_NE(integration::logText().find(" " + std::to_string(child) + " 2 child: \n"), std::string::npos);
}

// logrotate moves the log away and creates a fresh file in its place, or
// moves it with nothing put there: within a second or so records reach a file
// at the path again, and none is lost or written twice.
TEST(StandinLog, FollowsTheFileThroughLogrotatesMoves) {
  const std::string log = integration::scratchPath("ksu.log");
  int written = 0;
  // Logs numbered records until one lands in a file at `log`; false after 5 s.
  const auto logUntilOneIsAtThePath = [&] {
    for (int i = 0; i < 500; ++i) {
      ksu_logmsg_str(4, "rotation", "record " + std::to_string(written++));
      if (integration::fileText(log).find(" rotation: record ") != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  };
  ASSERT_TRUE(logUntilOneIsAtThePath());
  ASSERT_EQ(std::rename(log.c_str(), (log + ".1").c_str()), 0);
  std::ofstream(log).close();
  ASSERT_TRUE(logUntilOneIsAtThePath());
  ASSERT_EQ(std::rename(log.c_str(), (log + ".2").c_str()), 0);
  ASSERT_TRUE(logUntilOneIsAtThePath());

  std::vector<int> seen;
  for (const std::string& path : {log + ".1", log + ".2", log}) {
    std::istringstream lines(integration::fileText(path));
    for (std::string line; std::getline(lines, line);) {
      const size_t at = line.find(" rotation: record ");
      if (at != std::string::npos) seen.push_back(std::stoi(line.substr(at + 18)));
    }
  }
  std::vector<int> expected(written);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(seen, expected);
}

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
  }
  EXPECT_TRUE(m_master.requests().empty());
}

}  // namespace
