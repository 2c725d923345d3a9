#include "standin_environment.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace integration {
namespace {

std::string g_directory;

std::string configPath() { return g_directory + "/keepstone.conf"; }
std::string logPath() { return g_directory + "/ksu.log"; }

// The stand-in log opens its file on first use, so the variables must be set
// before any test logs.
class StandinEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kscdp-integration-XXXXXX").string();
    ASSERT_NE(mkdtemp(&pattern[0]), nullptr);
    g_directory = pattern;
    setenv("KEEPSTONE_CONF", configPath().c_str(), 1);
    setenv("KSU_LOG_FILE", logPath().c_str(), 1);
    writeConfig("");
  }

  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(g_directory, ignored);
  }
};

::testing::Environment* const g_environment = ::testing::AddGlobalTestEnvironment(new StandinEnvironment);

}  // namespace

void writeConfig(const std::string& text) {
  std::ofstream file(configPath(), std::ios::trunc);
  file << text;
  ASSERT_TRUE(file.good()) << configPath();
}

void removeConfig() { std::remove(configPath().c_str()); }

std::string scratchPath(const std::string& name) { return g_directory + "/" + name; }

std::string certificates() {
  static const std::string made = [] {
    const std::string dir = scratchPath("certs");
    const std::string make = "bash " KSCDP_SCRIPTS_DIR "/make-certs.sh " + dir + " >/dev/null";
    return std::system(make.c_str()) == 0 ? dir : std::string();
  }();
  return made;
}

std::string fileText(const std::string& path) {
  std::ifstream file(path);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

std::string logText() { return fileText(logPath()); }

void MasterOnLoopback::SetUp() {
  ASSERT_TRUE(m_master.start());
  writeConfig("server = 127.0.0.1\nrest_url = " + m_master.url() + "\nksqd_url = " + m_master.url() +
              "\noutbox = none\n");
}

}  // namespace integration
