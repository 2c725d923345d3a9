#include "fake_log.h"

#include <mutex>

#include "platform/ksu_log.h"

namespace fake {
namespace {
std::mutex g_mutex;
std::vector<LogLine> g_lines;
}  // namespace

const std::vector<LogLine>& logLines() { return g_lines; }

std::vector<LogLine> logLinesOf(const std::string& function) {
  std::lock_guard<std::mutex> lock(g_mutex);
  std::vector<LogLine> matching;
  for (const LogLine& line : g_lines) {
    if (line.function == function) matching.push_back(line);
  }
  return matching;
}

void resetLog() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_lines.clear();
}

}  // namespace fake

int ksu_logmsg_str(int level, const std::string& function, const std::string& message) {
  std::lock_guard<std::mutex> lock(fake::g_mutex);
  fake::g_lines.push_back({level, function, message});
  return 0;
}
