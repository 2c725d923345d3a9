// A program run as an operator runs it, through the shell, for the tests of
// the tools and the example programs.
#ifndef KSCDP_TESTS_INTEGRATION_PROGRAM_RUN_H_
#define KSCDP_TESTS_INTEGRATION_PROGRAM_RUN_H_

#include <string>

namespace integration {

struct ProgramRun {
  int exitStatus = -1;  // -1 when it did not exit by itself, or could not start
  std::string output;   // its standard output
  double seconds = 0;   // from start to end
};

// Runs `command` with sh, in this process's environment, to its end.
ProgramRun runProgram(const std::string& command);

}  // namespace integration

#endif  // KSCDP_TESTS_INTEGRATION_PROGRAM_RUN_H_
