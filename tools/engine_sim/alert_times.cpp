#include "alert_times.h"

#include <chrono>
#include <cstdio>

void AlertTimes::raised(const std::string& vmId) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  m_raised.emplace_back(vmId, std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

bool AlertTimes::write(const std::string& path) const {
  FILE* file = std::fopen(path.c_str(), "w");
  if (file == nullptr) return false;
  for (const auto& [vmId, nanoseconds] : m_raised)
    std::fprintf(file, "%s %lld.%09lld\n", vmId.c_str(), nanoseconds / 1000000000, nanoseconds % 1000000000);
  return std::fclose(file) == 0;
}
