// The stand-in master configuration and log, through their real files.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <string>
#include <vector>

#include "platform/ks_master_config.h"
#include "platform/ksu_log.h"
#include "standin_environment.h"

namespace {

TEST(MasterConfigFile, EveryReadLoadsWhatTheFileSaysNow) {
  const struct {
    const char* text;  // null: no file
    int result;
    std::vector<std::string> servers;
    const char* hostName;
  } cases[] = {
      {"  server\t=  m1  \r\n\thost_name=h1", 0, {"m1"}, "h1"},
      {"server = a\nserver = b=c\n", 0, {"a", "b=c"}, "<none>"},
      {"server =\nserver = b\n", 0, {"", "b"}, "<none>"},
      {"# server = x\n   # note\n\nrest_url = http://x\nserver = m\n", 0, {"m"}, "<none>"},
      {"host_name = h\n", 0, {}, "h"},
      {"server = m1\nthis is not a setting\n", 22, {}, "<none>"},
      {"server = m1\n = v\n", 22, {}, "<none>"},
      {nullptr, ENOENT, {}, "<none>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text != nullptr ? c.text : "no file");
    if (c.text != nullptr) {
      integration::writeConfig(c.text);
    } else {
      integration::removeConfig();
    }
    EXPECT_EQ(KS_read_master_config(), c.result);
    const ks_master_config* config = get_master_config_ptr();
    std::vector<std::string> servers;
    for (char** entry = config->server_list; entry != nullptr && *entry != nullptr; ++entry) {
      servers.emplace_back(*entry);
    }
    EXPECT_EQ(servers, c.servers);
    EXPECT_EQ(config->server_list == nullptr, c.result != 0);
    EXPECT_EQ(config->server_count, static_cast<int>(c.servers.size()));
    EXPECT_STREQ(config->host_name != nullptr ? config->host_name : "<none>", c.hostName);
  }
}

TEST(StandinLog, WritesOneEscapedRecordALine) {
  const size_t before = integration::logText().size();
  ksu_logmsg_str(16, "Some::function",
                 "a\\b\nc\rd\te\x01\x1f"
                 "f\x7f\xc3\xa9 \"q\"");
  ksu_logmsg_str(2, "other", "");
  const std::string added = integration::logText().substr(before);
  const std::string stamp = "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z " + std::to_string(getpid());
  const std::regex expected(stamp + " 16 Some::function: a\\\\\\\\b\\\\nc\\\\rd\\\\te\\\\x01\\\\x1f" +
                            "f\x7f\xc3\xa9 \"q\"\n" + stamp + " 2 other: \n");
  EXPECT_TRUE(std::regex_match(added, expected)) << added;
}

TEST(StandinLog, AForkedChildWritesItsOwnProcessId) {
  ksu_logmsg_str(2, "parent", "");
  const pid_t child = fork();
  if (child == 0) {
    ksu_logmsg_str(2, "child", "");
    _exit(0);
  }
  ASSERT_GT(child, 0);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_NE(integration::logText().find(" " + std::to_string(child) + " 2 child: \n"), std::string::npos);
}

}  // namespace
