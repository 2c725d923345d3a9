#include "test_files.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testbed {
namespace {

std::string temporaryFile(const std::string& prefix) {
  std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
  const int fd = mkstemp(&pattern[0]);
  if (fd < 0) throw std::runtime_error("mkstemp failed");
  close(fd);
  return pattern;
}

// The log file of this process; removed at exit when it is one of ours.
struct ProcessLogFile {
  ProcessLogFile() {
    const char* configured = std::getenv("KSU_LOG_FILE");
    if (configured != nullptr && *configured != '\0') {
      path = configured;
      return;
    }
    path = temporaryFile("kscdp-test-log");
    ours = true;
    setenv("KSU_LOG_FILE", path.c_str(), 1);
  }
  ~ProcessLogFile() {
    if (ours) std::remove(path.c_str());
  }
  std::string path;
  bool ours = false;
};

const std::string& processLogFile() {
  static const ProcessLogFile file;
  return file.path;
}

long fileSize(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  return file ? static_cast<long>(file.tellg()) : 0;
}

}  // namespace

TemporaryConfig::TemporaryConfig(const std::string& text) : path_(temporaryFile("kscdp-test-conf")) {
  std::ofstream(path_, std::ios::trunc) << text;
  setenv("KEEPSTONE_CONF", path_.c_str(), 1);
}

TemporaryConfig::~TemporaryConfig() {
  unsetenv("KEEPSTONE_CONF");
  std::remove(path_.c_str());
}

LogTail::LogTail() : path_(processLogFile()), start_(fileSize(path_)) {}

std::string LogTail::text() const {
  std::ifstream file(path_, std::ios::binary);
  file.seekg(start_);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace testbed
