// Scriptable fake of the master configuration library.
#ifndef KSCDP_TESTS_FAKES_FAKE_CONFIG_H_
#define KSCDP_TESTS_FAKES_FAKE_CONFIG_H_

#include <string>
#include <vector>

namespace fake {

// What the next KS_read_master_config() calls load. A failing read (non-zero
// result) leaves the record empty, as the real library does.
struct Config {
  int readResult = 0;
  // Reads that succeed before readResult takes effect.
  int successfulReadsFirst = 0;
  bool hasServerList = true;
  std::vector<std::string> servers{"master.example"};
  bool hasHostName = true;
  std::string hostName = "cdp-host.example";
};

inline Config config;

// Back to the default script, with no read made yet.
void resetConfig();

}  // namespace fake

#endif  // KSCDP_TESTS_FAKES_FAKE_CONFIG_H_
