// The request-daemon stand-in against the master simulator on loopback.
#include "platform/ksqd_client.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "standin_environment.h"

namespace {

using ::testing::HasSubstr;

// The answer, which the caller owns, or "<null>".
std::string takeAnswer(char* answer) {
  const std::string text = answer != nullptr ? answer : "<null>";
  std::free(answer);
  return text;
}

std::string policy(const std::string& name) { return R"({"policy": ")" + name + R"("})"; }

using KsqdClient = integration::MasterOnLoopback;

TEST_F(KsqdClient, PostsTheRequestAsIsAndHandsBackTheAnswer) {
  char* answer = nullptr;
  EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, policy("gold").c_str(), &answer), 0);
  EXPECT_EQ(takeAnswer(answer), R"({"jobid":1000})");

  const std::vector<master_sim::RecordedRequest> seen = master_.requests();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].method, "POST");
  EXPECT_EQ(seen[0].path, "/ksqd/1");
  EXPECT_EQ(seen[0].body, policy("gold"));
  const std::map<std::string, std::string> headers{{"Accept", "*/*"},
                                                   {"Content-Length", std::to_string(policy("gold").size())},
                                                   {"Content-Type", "application/json"},
                                                   {"Host", "127.0.0.1:" + std::to_string(master_.port())},
                                                   {"X-Keepstone-Master", "m1"}};
  EXPECT_EQ(seen[0].headers, headers);
}

TEST_F(KsqdClient, FailureIsTheDaemonsStatusElseTheHttpStatus) {
  const struct {
    const char* policy;
    master_sim::PolicyFaults faults;
    int result;
    std::string answer;
  } cases[] = {
      {"not json", {0, 0, true}, 0, "<"},
      {"refused by daemon", {503, 42, false}, 42, "<null>"},
      {"negative daemon status", {500, -3, false}, -3, "<null>"},
      {"refused", {500, 0, false}, 500, "<null>"},
      {"unknown", {404, 0, false}, 404, "<null>"},
  };
  for (const auto& c : cases) {
    master_.setPolicyFaults(c.policy, c.faults);
    char* answer = nullptr;
    EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, policy(c.policy).c_str(), &answer), c.result) << c.policy;
    EXPECT_EQ(takeAnswer(answer).substr(0, c.answer.size()), c.answer) << c.policy;
  }
}

TEST_F(KsqdClient, NoDaemonIsTheNegatedLibcurlErrorAndOneLogLine) {
  master_.stop();
  char* answer = nullptr;
  EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, policy("gold").c_str(), &answer), -7);
  EXPECT_EQ(answer, nullptr);
  const std::string log = newLog();
  EXPECT_THAT(log, HasSubstr(" 16 invoke_ksqd_cct_request: POST " + master_.url() + "/ksqd/1 failed: "));
  EXPECT_THAT(log, HasSubstr("(libcurl error 7)\n"));
  EXPECT_EQ(log.find('\n'), log.size() - 1) << log;
}

}  // namespace
