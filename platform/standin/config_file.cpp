#include "config_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace standin {
namespace {

const char kBlanks[] = " \t\r";

std::string trim(const std::string& text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return std::string();
  const size_t last = text.find_last_not_of(kBlanks);
  return text.substr(first, last - first + 1);
}

}  // namespace

std::string configFilePath() {
  const char* path = std::getenv("KEEPSTONE_CONF");
  return (path != nullptr && *path != '\0') ? path : "/etc/keepstone/keepstone.conf";
}

int parseConfigText(const std::string& text, ConfigValues& out) {
  int badLine = 0;
  return parseConfigText(text, out, badLine);
}

int parseConfigText(const std::string& text, ConfigValues& out, int& badLine) {
  ConfigValues parsed;
  badLine = 0;
  int lineNumber = 0;
  size_t start = 0;
  while (start <= text.size()) {
    ++lineNumber;
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = trim(text.substr(start, end - start));
    start = end + 1;
    if (line.empty() || line[0] == '#') continue;
    const size_t equals = line.find('=');
    const std::string key = equals == std::string::npos ? std::string() : trim(line.substr(0, equals));
    if (key.empty()) {
      badLine = lineNumber;
      return EINVAL;
    }
    const std::string value = trim(line.substr(equals + 1));
    if (key == "server") {
      parsed.servers.push_back(value);
    } else if (key == "host_name") {
      parsed.hasHostName = true;
      parsed.hostName = value;
    } else {
      parsed.settings[key] = value;
    }
  }
  out = std::move(parsed);
  return 0;
}

int readConfigFile(ConfigValues& out) {
  int badLine = 0;
  return readConfigFile(out, badLine);
}

int readConfigFile(ConfigValues& out, int& badLine) {
  badLine = 0;
  FILE* file = std::fopen(configFilePath().c_str(), "rb");
  if (file == nullptr) return errno != 0 ? errno : EIO;
  std::string text;
  char buffer[4096];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, got);
  const int error = std::ferror(file) ? (errno != 0 ? errno : EIO) : 0;
  std::fclose(file);
  if (error != 0) return error;
  return parseConfigText(text, out, badLine);
}

std::string setting(const ConfigValues& values, const std::string& key, const std::string& fallback) {
  const auto found = values.settings.find(key);
  return found != values.settings.end() ? found->second : fallback;
}

}  // namespace standin
