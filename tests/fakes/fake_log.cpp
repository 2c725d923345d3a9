#include "fake_log.h"

#include "platform/ksu_log.h"

namespace fake {
namespace {
std::vector<LogLine> g_lines;  // the library under test logs from one thread
}  // namespace

const std::vector<LogLine>& logLines() { return g_lines; }

std::vector<LogLine> logLinesOf(const std::string& function) {
  std::vector<LogLine> matching;
  for (const LogLine& line : g_lines) {
    if (line.function == function) matching.push_back(line);
  }
  return matching;
}

void resetLog() { g_lines.clear(); }

}  // namespace fake

int ksu_logmsg_str(int level, const std::string& function, const std::string& message) {
  fake::g_lines.push_back({level, function, message});
  return 0;
}
