#include "platform/standin/config/metrics_settings.h"

#include <cerrno>
#include <cstdlib>

namespace standin {

constexpr std::chrono::seconds MetricsSettings::kDefaultInterval;

MetricsSettings metricsSettings(const ConfigSnapshot& config) {
  const long kLongestInterval = 86400;
  MetricsSettings settings;
  settings.path = setting(config.values, "metrics_file", "");
  const std::string interval = setting(config.values, "metrics_interval", "");
  if (interval.empty()) return settings;
  char* end = nullptr;
  errno = 0;
  const long seconds = std::strtol(interval.c_str(), &end, 10);
  if (errno != 0 || end == interval.c_str() || *end != '\0' || seconds < 1 || seconds > kLongestInterval) {
    settings.problem = "metrics_interval in " + config.path + " is \"" + interval +
                       "\": write whole seconds from 1 to " + std::to_string(kLongestInterval) +
                       "; the metrics file is rewritten every " + std::to_string(settings.interval.count()) +
                       " s meanwhile";
    return settings;
  }
  settings.interval = std::chrono::seconds(seconds);
  return settings;
}

}  // namespace standin
