// The stand-in configuration, log and allocator, through their real files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/ks_master_config.h"
#include "platform/ksqd_client.h"
#include "platform/ksu_log.h"

namespace {

std::string tempPath(const std::string& name) {
  return ::testing::TempDir() + "kscdp_standin_" + std::to_string(getpid()) + "_" + name;
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> loadedServers() {
  std::vector<std::string> servers;
  const ks_master_config* config = get_master_config_ptr();
  for (char** entry = config->server_list; entry != nullptr && *entry != nullptr; ++entry) {
    servers.emplace_back(*entry);
  }
  return servers;
}

struct ConfigCase {
  const char* name;
  const char* text;
  int result;
  std::vector<std::string> servers;
  const char* hostName;  // null: not configured
};

class MasterConfigFile : public ::testing::Test {
 protected:
  void SetUp() override { setenv("KEEPSTONE_CONF", path_.c_str(), 1); }
  void TearDown() override { std::remove(path_.c_str()); }
  const std::string path_ = tempPath("keepstone.conf");
};

TEST_F(MasterConfigFile, LoadsWhatTheFileSays) {
  const std::vector<ConfigCase> cases = {
      {"plain", "server = m1\nhost_name = h1\n", 0, {"m1"}, "h1"},
      {"blanks trimmed", "  server\t=  m1  \r\n\thost_name=h1", 0, {"m1"}, "h1"},
      {"servers in order", "server = a\nserver = b\nserver = c\n", 0, {"a", "b", "c"}, nullptr},
      {"empty server kept", "server =\nserver = b\n", 0, {"", "b"}, nullptr},
      {"comments and unknown keys", "# server = x\n   # note\n\nrest_url = http://x\nserver = m\n", 0, {"m"}, nullptr},
      {"value keeps its equals", "server = a=b\n", 0, {"a=b"}, nullptr},
      {"no servers", "host_name = h\n", 0, {}, "h"},
      {"empty file", "", 0, {}, nullptr},
      {"line without equals", "server = m1\nthis is not a setting\n", 22, {}, nullptr},
      {"line without key", "server = m1\n = v\n", 22, {}, nullptr},
  };
  for (const ConfigCase& c : cases) {
    SCOPED_TRACE(c.name);
    writeFile(path_, c.text);
    EXPECT_EQ(KS_read_master_config(), c.result);
    EXPECT_EQ(loadedServers(), c.servers);
    const ks_master_config* config = get_master_config_ptr();
    if (c.result != 0) {
      EXPECT_EQ(config->server_list, nullptr);
    } else {
      ASSERT_NE(config->server_list, nullptr);
      EXPECT_EQ(config->server_count, static_cast<int>(c.servers.size()));
    }
    if (c.hostName == nullptr) {
      EXPECT_EQ(config->host_name, nullptr);
    } else {
      ASSERT_NE(config->host_name, nullptr);
      EXPECT_STREQ(config->host_name, c.hostName);
    }
  }
}

TEST_F(MasterConfigFile, EveryReadSeesTheFileAsItIsNow) {
  writeFile(path_, "server = first\n");
  ASSERT_EQ(KS_read_master_config(), 0);
  writeFile(path_, "server = second\n");
  ASSERT_EQ(KS_read_master_config(), 0);
  EXPECT_EQ(loadedServers(), std::vector<std::string>{"second"});
}

TEST_F(MasterConfigFile, UnreadableFileGivesErrnoAndEmptiesTheRecord) {
  writeFile(path_, "server = m1\nhost_name = h\n");
  ASSERT_EQ(KS_read_master_config(), 0);
  std::remove(path_.c_str());
  EXPECT_EQ(KS_read_master_config(), ENOENT);
  EXPECT_EQ(get_master_config_ptr()->server_list, nullptr);
  EXPECT_EQ(get_master_config_ptr()->host_name, nullptr);
  setenv("KEEPSTONE_CONF", ::testing::TempDir().c_str(), 1);  // a directory
  EXPECT_EQ(KS_read_master_config(), EISDIR);
}

// KSU_LOG_FILE is read once, at the first record; the environment below sets
// it before any test runs.
class LogEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    std::remove(path().c_str());
    setenv("KSU_LOG_FILE", path().c_str(), 1);
  }
  void TearDown() override { std::remove(path().c_str()); }
  static std::string path() { return tempPath("ksu.log"); }
};
const auto* const g_logEnvironment = ::testing::AddGlobalTestEnvironment(new LogEnvironment);

TEST(StandinLog, WritesOneEscapedRecordALine) {
  const std::string before = readFile(LogEnvironment::path());
  ksu_logmsg_str(16, "Some::function", "a\\b\nc\rd\te\x01\x1f" "f\x7f\xc3\xa9 \"q\"");
  ksu_logmsg_str(2, "other", "");
  const std::string added = readFile(LogEnvironment::path()).substr(before.size());
  const std::string pid = std::to_string(getpid());
  const std::regex expected(
      "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z " + pid +
      " 16 Some::function: a\\\\\\\\b\\\\nc\\\\rd\\\\te\\\\x01\\\\x1ff\x7f\xc3\xa9 \"q\"\n"
      "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z " + pid + " 2 other: \n");
  EXPECT_TRUE(std::regex_match(added, expected)) << added;
}

TEST(StandinAllocator, ZeroBytesGetAUniquePointerAndFreeClearsIt) {
  void* first = cct_malloc("test", 0, __LINE__);
  void* second = cct_malloc("test", 0, __LINE__);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(first, second);
  cct_free("test", &first, __LINE__);
  cct_free("test", &second, __LINE__);
  EXPECT_EQ(first, nullptr);
  EXPECT_EQ(second, nullptr);
  cct_free("test", &first, __LINE__);  // already null: nothing happens
}

}  // namespace
