#include "platform/standin/config/outbox_settings.h"

#include "platform/standin/config/config_file.h"

namespace standin {

const char kDefaultOutboxPath[] = "/var/lib/kscdp/outbox.db";

bool readOutboxPath(std::string& path, std::string& error) {
  const std::shared_ptr<const ConfigSnapshot> config = currentConfig();
  if (config->readResult != 0) {
    error = config->problem();
    return false;
  }
  const std::string value = setting(config->values, "outbox", kDefaultOutboxPath);
  if (value.empty()) {
    error = "outbox in " + config->path + " is empty: name a file, or none to keep alerts in memory only";
    return false;
  }
  path = value == "none" ? std::string() : value;
  return true;
}

bool readOutboxSync(bool& full, std::string& error) {
  const std::shared_ptr<const ConfigSnapshot> config = currentConfig();
  const std::string value = setting(config->values, "outbox_sync", "normal");
  full = value != "normal";
  if (value == "normal" || value == "full") return true;
  error = "outbox_sync in " + config->path + " is \"" + value + "\": write normal or full";
  return false;
}

}  // namespace standin
