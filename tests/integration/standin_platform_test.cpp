// The stand-in master configuration and log, through their real files, and
// the request-daemon client against the master simulator.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <numeric>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/ks_master_config.h"
#include "platform/ksqd_client.h"
#include "platform/ksu_log.h"
#include "standin_environment.h"

namespace {

TEST(MasterConfigFile, EveryReadLoadsWhatTheFileSaysNow) {
  const struct {
    const char* text;  // null: no file
    int result;
    std::vector<std::string> servers;
    const char* hostName;
  } cases[] = {
      {"  server\t=  m1  \r\n\thost_name=h1", 0, {"m1"}, "h1"},
      {"server = a\nserver = b=c\n", 0, {"a", "b=c"}, "<none>"},
      {"server =\nserver = b\n", 0, {"", "b"}, "<none>"},
      {"# server = x\n   # note\n\nrest_url = http://x\nserver = m\n", 0, {"m"}, "<none>"},
      {"host_name = h\n", 0, {}, "h"},
      {"server = m1\nthis is not a setting\n", 22, {}, "<none>"},
      {"server = m1\n = v\n", 22, {}, "<none>"},
      {nullptr, ENOENT, {}, "<none>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text != nullptr ? c.text : "no file");
    if (c.text != nullptr) {
      integration::writeConfig(c.text);
    } else {
      integration::removeConfig();
    }
    EXPECT_EQ(KS_read_master_config(), c.result);
    const ks_master_config* config = get_master_config_ptr();
    std::vector<std::string> servers;
    for (char** entry = config->server_list; entry != nullptr && *entry != nullptr; ++entry) {
      servers.emplace_back(*entry);
    }
    EXPECT_EQ(servers, c.servers);
    EXPECT_EQ(config->server_list == nullptr, c.result != 0);
    EXPECT_EQ(config->server_count, static_cast<int>(c.servers.size()));
    EXPECT_STREQ(config->host_name != nullptr ? config->host_name : "<none>", c.hostName);
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
  integration::writeConfig("server = after!\n");
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

TEST_F(KsqdClient, FailureIsTheDaemonsStatusElseTheHttpStatus) {
  const struct {
    const char* policy;
    master_sim::PolicyFaults faults;
    int result;
    std::string answer;  // its start; "<null>": none
  } cases[] = {
      {"not json", {0, 0, true}, 0, "<"},
      {"refused by daemon", {503, 42, false}, 42, "<null>"},
      {"negative daemon status", {500, -3, false}, -3, "<null>"},
      {"unknown", {404, 0, false}, 404, "<null>"},
  };
  for (const auto& c : cases) {
    m_master.setPolicyFaults(c.policy, c.faults);
    char* answer = nullptr;
    const std::string request = std::string(R"({"policy": ")") + c.policy + "\"}";
    EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, request.c_str(), &answer), c.result) << c.policy;
    EXPECT_EQ(std::string(answer != nullptr ? answer : "<null>").substr(0, c.answer.size()), c.answer) << c.policy;
    std::free(answer);  // the caller's
  }
}

}  // namespace
