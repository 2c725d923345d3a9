#include "program_run.h"

#include <sys/wait.h>

#include <chrono>
#include <cstdio>

namespace integration {

ProgramRun runProgram(const std::string& command) {
  ProgramRun run;
  const auto started = std::chrono::steady_clock::now();
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return run;
  char buffer[4096];
  for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) run.output.append(buffer, got);
  const int status = pclose(pipe);
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  run.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

}  // namespace integration
