#include "http_timeout.h"

#include <cerrno>
#include <cstdlib>

namespace standin {

long httpTimeoutSeconds(const ConfigValues& values) {
  const long kDefaultSeconds = 30;
  const std::string text = setting(values, "http_timeout", "");
  if (text.empty()) return kDefaultSeconds;
  char* end = nullptr;
  errno = 0;
  const long seconds = std::strtol(text.c_str(), &end, 10);
  const bool whole = errno == 0 && *end == '\0';
  return whole && seconds > 0 ? seconds : kDefaultSeconds;
}

}  // namespace standin
