// Real files that the stand-in platform reads and writes during a test: the
// master configuration file and the log file.
#ifndef KSCDP_TESTS_INTEGRATION_TEST_FILES_H_
#define KSCDP_TESTS_INTEGRATION_TEST_FILES_H_

#include <string>

namespace testbed {

// A master configuration file with the given text, which KEEPSTONE_CONF names
// while the object lives. Make it before the threads that might read the
// environment start.
class TemporaryConfig {
 public:
  explicit TemporaryConfig(const std::string& text);
  ~TemporaryConfig();
  TemporaryConfig(const TemporaryConfig&) = delete;
  TemporaryConfig& operator=(const TemporaryConfig&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// What the stand-in log has received since the object was made. The first
// one made in a process points KSU_LOG_FILE at a temporary file unless it is
// set already; that must happen before anything is logged.
class LogTail {
 public:
  LogTail();
  std::string text() const;

 private:
  std::string path_;
  long start_;
};

}  // namespace testbed

#endif  // KSCDP_TESTS_INTEGRATION_TEST_FILES_H_
