// The master configuration file: "key = value" lines, "#" comments, blanks.
//
// The file is parsed in one place: currentConfig() keeps one snapshot of the
// parse and takes a new one only when stat() says the file is no longer the
// one parsed. Every stand-in takes its keys from that snapshot.
#ifndef KSCDP_PLATFORM_STANDIN_CONFIG_CONFIG_FILE_H_
#define KSCDP_PLATFORM_STANDIN_CONFIG_CONFIG_FILE_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "port/fork_hooks.h"

namespace standin {

// A line whose key is not one of knownConfigKeys(): the library ignores it,
// and kscdp-doctor warns about it.
struct UnknownKey {
  std::string key;
  int line = 0;  // from 1
};

struct ConfigValues {
  std::vector<std::string> servers;  // every "server" line, in order
  bool hasHostName = false;
  std::string hostName;                         // the last "host_name" line
  std::map<std::string, std::string> settings;  // every other key, last value wins
  std::vector<UnknownKey> unknownKeys;          // in the order of their lines
};

// Every key the file may hold: the library's own two and the stand-ins' keys.
// The one list of them.
const std::vector<std::string>& knownConfigKeys();

// The value of `key`, or `fallback` when the key is absent.
std::string setting(const ConfigValues& values, const std::string& key, const std::string& fallback);

// 0, or EINVAL (22) for a line that is neither blank, a comment nor
// "key = value"; `badLine` is then the number (from 1) of the first such
// line, else 0. `out` is filled only on success.
int parseConfigText(const std::string& text, ConfigValues& out, int& badLine);
int parseConfigText(const std::string& text, ConfigValues& out);

// The file named by KEEPSTONE_CONF, default /etc/keepstone/keepstone.conf.
std::string configFilePath();

// The configuration file as one read of it found it. Immutable once made.
struct ConfigSnapshot {
  std::string path;
  int readResult = 0;   // 0, the errno of a failed read, or EINVAL for a bad line
  int badLine = 0;      // with a bad line: its number, from 1
  ConfigValues values;  // empty unless readResult is 0

  // What is wrong with the file, naming it: for a failed read "cannot read
  // <path>: <reason>", for a bad line "<path> line <n> is neither blank, a
  // comment nor "key = value"". Empty when readResult is 0.
  std::string problem() const;
};

// The file as it stands. Its device, inode, size and modification and change
// times (to the nanosecond) are compared by stat() with those of the last
// parse, and the file is opened and parsed again only when one differs, so
// an edit is seen by the next call and an unchanged file is not opened. A
// file changed within the clock's granularity of its last parse is parsed
// again on the next call, since an edit that soon might not move its times.
// A file that cannot be looked at gives a snapshot with the errno. Never
// null; thread-safe.
std::shared_ptr<const ConfigSnapshot> currentConfig();

// Around fork(): the last parse is not being replaced while the process is
// copied.
extern const port::ForkHooks kConfigForkHooks;

// Forgets the last parse of the configuration file; the next read parses it.
// For unloading.
void releaseConfigSnapshot();

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CONFIG_CONFIG_FILE_H_
