// The files the stand-in platform reads and writes in an integration test
// program: a master configuration file (KEEPSTONE_CONF) and a log file
// (KSU_LOG_FILE), both in a temporary directory of the program's own that is
// set up before the first test runs.
#ifndef KSCDP_TESTS_INTEGRATION_STANDIN_ENVIRONMENT_H_
#define KSCDP_TESTS_INTEGRATION_STANDIN_ENVIRONMENT_H_

#include <gtest/gtest.h>

#include <string>

#include "master_sim/MasterSimulator.h"

namespace integration {

// Replaces the master configuration file's text.
void writeConfig(const std::string& text);
// Removes the master configuration file.
void removeConfig();
// A path in the program's temporary directory, for files such as an outbox.
std::string scratchPath(const std::string& name);

// The directory of the certificates that scripts/make-certs.sh makes, made
// in the program's temporary directory on first use; "" when they cannot be
// made.
std::string certificates();

// The text of the file at `path`; "" when there is none.
std::string fileText(const std::string& path);

// Everything logged so far. The log file only grows, so a test notes its size
// before acting and reads what came after.
std::string logText();

// A test of the stand-ins, which notes where the log stood when it began.
class StandinTest : public ::testing::Test {
 protected:
  // What the stand-ins logged since the test began.
  std::string newLog() const { return logText().substr(m_logStart); }

  const size_t m_logStart = logText().size();
};

// A master simulator on a free loopback port, with the configuration file
// naming 127.0.0.1 as the master and sending REST and request-daemon
// requests to the simulator; alerts wait in memory only.
class MasterOnLoopback : public StandinTest {
 protected:
  void SetUp() override;

  master_sim::MasterSimulator m_master;
};

}  // namespace integration

#endif  // KSCDP_TESTS_INTEGRATION_STANDIN_ENVIRONMENT_H_
