// Where the request-daemon stand-in sends a request: the master's host written
// into a URL, or the "ksqd_url" setting.
#include "platform/standin/config/ksqd_url.h"

#include <gtest/gtest.h>

#include <string>

#include "case_table.h"
#include "platform/standin/config/url_credentials.h"

namespace {

TEST(KsqdUrl, IsTheSettingOrTheMastersDaemonPortWithIpv6InBrackets) {
  for (const cases::Row& c : cases::read("ksqd_urls.cases")) {
    standin::ConfigValues config;
    if (!c[1].empty()) config.settings["ksqd_url"] = c[1];
    std::string url = "unset";
    std::string problem;
    const bool made = standin::ksqdRequestUrl(config, c[0], 1, url, problem);
    EXPECT_EQ(made ? url : "-", c[2]) << c[0] << " " << c[1];
    if (!made) {
      EXPECT_EQ(problem.rfind("ksqd_url \"" + standin::urlWithoutPassword(c[1]) + "\" in ", 0), 0u) << problem;
      EXPECT_EQ(problem.find(":pw@"), std::string::npos) << problem;
      EXPECT_EQ(url, "unset");
    }
  }
}

}  // namespace
