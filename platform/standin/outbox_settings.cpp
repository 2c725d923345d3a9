#include "outbox_settings.h"

#include <cstring>

#include "config_file.h"

namespace standin {

const char kDefaultOutboxPath[] = "/var/lib/kscdp/outbox.db";

bool readOutboxPath(std::string& path, std::string& error) {
  ConfigValues config;
  const int result = readConfigFile(config);
  if (result != 0) {
    error = "cannot read " + configFilePath() + ": " + std::strerror(result);
    return false;
  }
  const std::string value = setting(config, "outbox", kDefaultOutboxPath);
  if (value.empty()) {
    error = "outbox in " + configFilePath() + " is empty: name a file, or none to keep alerts in memory only";
    return false;
  }
  path = value == "none" ? std::string() : value;
  return true;
}

}  // namespace standin
