// Where the metrics file goes and how often it is rewritten: the
// "metrics_file" and "metrics_interval" keys of the configuration file.
#ifndef KSCDP_PLATFORM_STANDIN_CONFIG_METRICS_SETTINGS_H_
#define KSCDP_PLATFORM_STANDIN_CONFIG_METRICS_SETTINGS_H_

#include <chrono>
#include <string>

#include "platform/standin/config/config_file.h"

namespace standin {

struct MetricsSettings {
  static constexpr std::chrono::seconds kDefaultInterval{10};

  std::string path;  // empty: no metrics file
  std::chrono::seconds interval = kDefaultInterval;
  // Non-empty when metrics_interval is not whole seconds from 1 to 86400:
  // what is wrong, naming the file, and that the default holds meanwhile.
  std::string problem;
};

MetricsSettings metricsSettings(const ConfigSnapshot& config);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CONFIG_METRICS_SETTINGS_H_
