// The stand-in log, through its real file.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <numeric>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/ksu_log.h"
#include "standin_environment.h"

namespace {

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

}  // namespace
