// Recording fake of the logging library.
#ifndef KSCDP_TESTS_FAKES_FAKE_LOG_H_
#define KSCDP_TESTS_FAKES_FAKE_LOG_H_

#include <string>
#include <vector>

namespace fake {

struct LogLine {
  int level;
  std::string function;
  std::string message;
  bool operator==(const LogLine& other) const {
    return level == other.level && function == other.function && message == other.message;
  }
};

// While set, every line fails as one would when memory runs out: nothing is
// recorded and std::bad_alloc is thrown.
inline bool logFails = false;

// Every line logged, in order. Read it when the threads that log have ended.
inline std::vector<LogLine> logLines;

// The lines logged under `function`.
std::vector<LogLine> logLinesOf(const std::string& function);

}  // namespace fake

#endif  // KSCDP_TESTS_FAKES_FAKE_LOG_H_
