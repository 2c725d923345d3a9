// The master configuration file's text through standin::parseConfigText.
// What it accepts must be clean (no blanks around keys and values, no line
// breaks inside them) and must read back the same when written out again;
// what it refuses must leave the caller's values alone.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "platform/standin/config/config_file.h"

namespace {

bool isTrimmed(const std::string& text) {
  static const char kBlanks[] = " \t\r";
  if (text.find('\n') != std::string::npos) return false;
  if (text.empty()) return true;
  return text.find_first_of(kBlanks) != 0 && text.find_last_of(kBlanks) != text.size() - 1;
}

// The text of a file that holds exactly `values`.
std::string written(const standin::ConfigValues& values) {
  std::string text;
  for (const std::string& server : values.servers) text += "server = " + server + "\n";
  if (values.hasHostName) text += "host_name = " + values.hostName + "\n";
  for (const auto& setting : values.settings) text += setting.first + " = " + setting.second + "\n";
  return text;
}

bool same(const standin::ConfigValues& a, const standin::ConfigValues& b) {
  return a.servers == b.servers && a.hasHostName == b.hasHostName && a.hostName == b.hostName &&
         a.settings == b.settings;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  standin::ConfigValues values;
  values.servers = {"untouched"};
  const int result = standin::parseConfigText(text, values);
  if (result != 0) {
    FUZZ_CHECK(result == 22);
    FUZZ_CHECK(values.servers.size() == 1 && values.servers[0] == "untouched");
    return 0;
  }

  for (const std::string& server : values.servers) FUZZ_CHECK(isTrimmed(server));
  FUZZ_CHECK(isTrimmed(values.hostName));
  FUZZ_CHECK(values.hasHostName || values.hostName.empty());
  for (const auto& setting : values.settings) {
    FUZZ_CHECK(!setting.first.empty() && setting.first[0] != '#');
    FUZZ_CHECK(setting.first != "server" && setting.first != "host_name");
    FUZZ_CHECK(setting.first.find('=') == std::string::npos);
    FUZZ_CHECK(isTrimmed(setting.first) && isTrimmed(setting.second));
  }

  standin::ConfigValues reread;
  FUZZ_CHECK(standin::parseConfigText(written(values), reread) == 0);
  FUZZ_CHECK(same(values, reread));
  return 0;
}
