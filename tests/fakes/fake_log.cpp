#include "fake_log.h"

#include <mutex>
#include <new>

#include "platform/ksu_log.h"

std::vector<fake::LogLine> fake::logLinesOf(const std::string& function) {
  std::vector<LogLine> matching;
  for (const LogLine& line : logLines) {
    if (line.function == function) matching.push_back(line);
  }
  return matching;
}

int ksu_logmsg_str(int level, const std::string& function, const std::string& message) {
  if (fake::logFails) throw std::bad_alloc();
  static std::mutex appending;
  const std::lock_guard<std::mutex> lock(appending);
  fake::logLines.push_back({level, function, message});
  return 0;
}
