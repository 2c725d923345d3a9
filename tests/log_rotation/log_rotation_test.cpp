// The stand-in log follows its file through logrotate's rotations while
// several threads log: moved and replaced by a fresh file (the default), and
// moved with nothing put in its place. Every record lands in one of the files,
// once, in order.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/ksu_log.h"

namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Waits up to 5 s for `path` to hold a record; false when it never does.
bool receivesRecords(const std::string& path) {
  for (int i = 0; i < 500 && readFile(path).find("record") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return readFile(path).find("record") != std::string::npos;
}

TEST(LogRotation, EveryRecordLandsOnceAcrossRotations) {
  char directory[] = "/tmp/kscdp-log-rotation-XXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  const std::string log = std::string(directory) + "/kscdp.log";
  ASSERT_EQ(setenv("KSU_LOG_FILE", log.c_str(), 1), 0);

  const int kWriters = 3;
  std::atomic<bool> stop{false};
  std::vector<int> written(kWriters, 0);
  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([w, &stop, &written] {
      for (int n = 0; !stop; ++n) {
        ksu_logmsg_str(4, "writer" + std::to_string(w), "record " + std::to_string(n));
        written[w] = n + 1;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
  }

  // Moved and replaced (logrotate's "create"), then moved with nothing in
  // its place: the log must reach a file at the path each time.
  const bool rotated = receivesRecords(log) && std::rename(log.c_str(), (log + ".1").c_str()) == 0 &&
                       std::ofstream(log).good() && receivesRecords(log) &&
                       std::rename(log.c_str(), (log + ".2").c_str()) == 0 && receivesRecords(log);
  stop = true;
  for (std::thread& writer : writers) writer.join();
  ASSERT_TRUE(rotated);

  // Each writer's records, in the order the three files hold them.
  std::map<int, std::vector<int>> seen;
  for (const std::string& path : {log + ".1", log + ".2", log}) {
    std::istringstream lines(readFile(path));
    std::string line;
    while (std::getline(lines, line)) {
      int writer = -1;
      int record = -1;
      const size_t at = line.find(" writer");
      ASSERT_NE(at, std::string::npos) << line;
      ASSERT_EQ(std::sscanf(line.c_str() + at, " writer%d: record %d", &writer, &record), 2) << line;
      seen[writer].push_back(record);
    }
    std::remove(path.c_str());
  }
  rmdir(directory);
  for (int w = 0; w < kWriters; ++w) {
    std::vector<int> expected(written[w]);
    for (int n = 0; n < written[w]; ++n) expected[n] = n;
    EXPECT_EQ(seen[w], expected) << "writer " << w;
  }
}

}  // namespace
