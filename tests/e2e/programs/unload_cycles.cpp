// kscdp_unload_cycles LIBRARY CYCLES dlclose|exit FIRST: CYCLES times, loads
// libkscdp.so, raises alert 501 for the VM "0...0<FIRST + i>" and unloads it
// without stop_alert_thread; exit status 0 when each dlclose unmapped both
// libraries (it links neither). With "exit", the last cycle returns from main
// with the library loaded instead.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "engine_library.h"

namespace {

// The line of /proc/self/maps that maps one of the two libraries; empty when
// neither is mapped.
std::string mappedLibrary() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("/libkscdp.so") != std::string::npos || line.find("/libkscdp_platform.so") != std::string::npos)
      return line;
  }
  return std::string();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5 || (std::strcmp(argv[3], "dlclose") != 0 && std::strcmp(argv[3], "exit") != 0)) {
    std::fprintf(stderr, "usage: %s LIBRARY CYCLES dlclose|exit FIRST\n", argv[0]);
    return 2;
  }
  const int cycles = std::atoi(argv[2]);
  const bool exitLoaded = std::strcmp(argv[3], "exit") == 0;
  const int first = std::atoi(argv[4]);
  for (int cycle = 0; cycle < cycles; ++cycle) {
    EngineLibrary library;
    std::string error;
    if (!library.load(argv[1], error)) {
      std::fprintf(stderr, "cycle %d: %s\n", cycle, error.c_str());
      return 1;
    }
    char vm[33];
    std::snprintf(vm, sizeof vm, "%032d", first + cycle);
    library.raise_backup_alert(vm, 501, "");
    if (exitLoaded && cycle == cycles - 1) return 0;
    library.unload();
    const std::string mapped = mappedLibrary();
    if (!mapped.empty()) {
      std::fprintf(stderr, "cycle %d: still mapped after dlclose: %s\n", cycle, mapped.c_str());
      return 1;
    }
  }
  return 0;
}
