// The files the stand-in platform reads and writes in an integration test
// program: a master configuration file (KEEPSTONE_CONF) and a log file
// (KSU_LOG_FILE), both in a temporary directory of the program's own that is
// set up before the first test runs.
#ifndef KSCDP_TESTS_INTEGRATION_STANDIN_ENVIRONMENT_H_
#define KSCDP_TESTS_INTEGRATION_STANDIN_ENVIRONMENT_H_

#include <string>

namespace integration {

// Replaces the master configuration file's text.
void writeConfig(const std::string& text);

// Everything logged so far. The log file only grows, so a test notes its size
// before acting and reads what came after.
std::string logText();

}  // namespace integration

#endif  // KSCDP_TESTS_INTEGRATION_STANDIN_ENVIRONMENT_H_
