// The master configuration file: "key = value" lines, "#" comments, blanks.
//
// The stand-ins parse it into a private ConfigValues each time they need it;
// nothing is cached.
#ifndef KSCDP_PLATFORM_STANDIN_CONFIG_FILE_H_
#define KSCDP_PLATFORM_STANDIN_CONFIG_FILE_H_

#include <map>
#include <string>
#include <vector>

namespace standin {

struct ConfigValues {
  std::vector<std::string> servers;  // every "server" line, in order
  bool hasHostName = false;
  std::string hostName;                         // the last "host_name" line
  std::map<std::string, std::string> settings;  // every other key, last value wins
};

// The file named by KEEPSTONE_CONF, default /etc/keepstone/keepstone.conf.
std::string configFilePath();

// 0, or 22 for a line that is neither blank, a comment nor "key = value".
// `out` is filled only on success.
int parseConfigText(const std::string& text, ConfigValues& out);
// The same; on 22, `badLine` is the number (from 1) of the first bad line,
// else 0.
int parseConfigText(const std::string& text, ConfigValues& out, int& badLine);

// 0, the errno of a failed read, or 22 as parseConfigText.
int readConfigFile(ConfigValues& out);
// The same, with the number of the first bad line as parseConfigText.
int readConfigFile(ConfigValues& out, int& badLine);

// The value of `key`, or `fallback` when the key is absent.
std::string setting(const ConfigValues& values, const std::string& key, const std::string& fallback);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CONFIG_FILE_H_
