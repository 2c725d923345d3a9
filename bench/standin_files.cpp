#include "standin_files.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace bench {

StandinFiles::StandinFiles() {
  char pattern[] = "/tmp/kscdp-bench-XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error("cannot make a temporary directory");
  m_directory = pattern;
  setenv("KEEPSTONE_CONF", configPath().c_str(), 1);
  setenv("KSU_LOG_FILE", logPath().c_str(), 1);
}

StandinFiles::~StandinFiles() {
  std::error_code ignored;
  std::filesystem::remove_all(m_directory, ignored);
}

void StandinFiles::writeConfig(const std::string& text) const {
  std::ofstream file(configPath(), std::ios::trunc);
  file << text;
  file.close();
  if (!file) throw std::runtime_error("cannot write " + configPath());
}

}  // namespace bench
