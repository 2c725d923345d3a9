// Where the request-daemon stand-in sends a request: the master's host written
// into a URL, or the "ksqd_url" setting.
#include "platform/standin/ksqd_url.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(KsqdUrl, IsTheSettingOrTheMastersDaemonPortWithIpv6InBrackets) {
  const struct {
    const char* master;
    const char* setting;  // "": no setting
    const char* url;      // null: refused, the problem naming the key
  } cases[] = {
      {"m1.example", "", "http://m1.example:8557/ksqd/1"},
      {"10.0.0.1", "", "http://10.0.0.1:8557/ksqd/1"},
      {"::1", "", "http://[::1]:8557/ksqd/1"},
      {"[::1]", "", "http://[::1]:8557/ksqd/1"},
      {"fe80::1%eth0", "", "http://[fe80::1%eth0]:8557/ksqd/1"},
      {"m", "HTTPS://d.example:99//", "HTTPS://d.example:99/ksqd/1"},
      {"m", "http://d/base/", "http://d/base/ksqd/1"},
      {"m", "ftp://d", nullptr},
      {"m", "d.example:8557", nullptr},
  };
  for (const auto& c : cases) {
    standin::ConfigValues config;
    if (*c.setting != '\0') config.settings["ksqd_url"] = c.setting;
    std::string url = "unset";
    std::string problem;
    const bool made = standin::ksqdRequestUrl(config, c.master, 1, url, problem);
    EXPECT_EQ(made ? url : "", c.url != nullptr ? c.url : "") << c.master << " " << c.setting;
    if (!made) {
      EXPECT_EQ(problem.rfind(std::string("ksqd_url \"") + c.setting + "\" in ", 0), 0u) << problem;
      EXPECT_EQ(url, "unset");
    }
  }
}

}  // namespace
