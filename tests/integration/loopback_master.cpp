#include "loopback_master.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

std::string tempPath(const std::string& suffix) {
  return testing::TempDir() + "kscdp_rest_" + std::to_string(getpid()) + suffix;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The stand-in log opens its file at its first line: name it before any test runs.
class LogFileEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { setenv("KSU_LOG_FILE", tempPath(".log").c_str(), 1); }
  void TearDown() override { std::remove(tempPath(".log").c_str()); }
};

const ::testing::Environment* const kLogFile = ::testing::AddGlobalTestEnvironment(new LogFileEnvironment);

}  // namespace

size_t LoopbackMasterTest::logStart_ = 0;

void LoopbackMasterTest::SetUp() {
  logStart_ = readFile(tempPath(".log")).size();
  configPath_ = tempPath(".conf");
  ASSERT_TRUE(sim_.start());
  useRestUrl(sim_.url());
}

void LoopbackMasterTest::TearDown() { std::remove(configPath_.c_str()); }

void LoopbackMasterTest::useRestUrl(const std::string& url) {
  std::ofstream(configPath_) << "server = 127.0.0.1\nrest_url = " << url << "\nksqd_url = " << url << "\n";
  setenv("KEEPSTONE_CONF", configPath_.c_str(), 1);
}

std::unique_ptr<KSClientCURL> LoopbackMasterTest::client(const std::string& mediaType) {
  const bool cancel = false;
  std::unique_ptr<KSClientCURL> made(new KSClientCURL("127.0.0.1", 1556, CERT_TYPE_PEM, KS_CURL_SESSION_SHARED,
                                                      nullptr, "", true, false, false, "", "", "", "", "", "",
                                                      false, cancel, "", 0));
  made->setupAcceptCurlOption(mediaType);
  return made;
}

std::string LoopbackMasterTest::newLogLines() { return readFile(tempPath(".log")).substr(logStart_); }
