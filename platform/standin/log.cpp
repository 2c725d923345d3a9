// Log records, one a line:
//   <UTC YYYY-MM-DDTHH:MM:SS.mmmZ> <pid> <level> <function>: <message>
// appended to the file named by KSU_LOG_FILE (opened once), else stderr.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>

#include "platform/ksu_log.h"

namespace {

std::mutex g_mutex;
FILE* g_sink = nullptr;  // guarded by g_mutex; opened on first use, never closed

FILE* sink() {
  if (g_sink == nullptr) {
    const char* path = std::getenv("KSU_LOG_FILE");
    if (path != nullptr && *path != '\0') g_sink = std::fopen(path, "a");
    if (g_sink == nullptr) g_sink = stderr;
  }
  return g_sink;
}

// Backslash and control bytes are escaped so that a record stays one line.
void appendEscaped(std::string& out, const std::string& message) {
  static const char kHex[] = "0123456789abcdef";
  for (const char c : message) {
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (byte < 0x20) {
          out += "\\x";
          out += kHex[byte >> 4];
          out += kHex[byte & 0xf];
        } else {
          out += c;
        }
    }
  }
}

std::string timestamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm utc{};
  gmtime_r(&now.tv_sec, &utc);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                now.tv_nsec / 1000000);
  return text;
}

}  // namespace

int ksu_logmsg_str(int level, const std::string& function, const std::string& message) {
  std::string line = timestamp();
  line += ' ';
  line += std::to_string(getpid());
  line += ' ';
  line += std::to_string(level);
  line += ' ';
  line += function;
  line += ": ";
  appendEscaped(line, message);
  line += '\n';
  std::lock_guard<std::mutex> lock(g_mutex);
  FILE* out = sink();
  std::fwrite(line.data(), 1, line.size(), out);
  std::fflush(out);
  return 0;
}
