#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "case_table.h"
#include "fake_platform.h"
#include "rest/CCTCurlWrapper.h"

namespace {

const char kLogName[] = "KSCurlWrapper::makeRequest";

class RestClientTest : public ::testing::Test {
 protected:
  void SetUp() override { fake::resetPlatform(); }
  // Every client is gone again, whichever way makeRequest left.
  void TearDown() override { EXPECT_EQ(fake::curl.live, 0); }

  // makeRequest into a response that holds earlier values.
  int request(int32_t type, const std::string& payload = "") {
    KSCurlRequestParams params;
    params.uri = "keepstone/admin/jobs/7";
    params.payload = payload;
    params.requestType = type;
    m_response = KSCurlResponse{77, "earlier body", "earlier warning"};
    return KSCurlWrapper().makeRequest(params, m_response);
  }

  std::string response() const {
    return std::to_string(m_response.statusCode) + "|" + m_response.message + "|" + m_response.warning;
  }

  KSCurlResponse m_response{};
};

TEST_F(RestClientTest, ClientGetsTheFirstServerAndTheFixedArguments) {
  fake::config.servers = {"master.example", "second.example"};
  EXPECT_EQ(request(1, R"({"policy":"gold"})"), 0);
  ASSERT_EQ(fake::curl.clients.size(), 1u);
  const fake::CurlClientRecord& client = fake::curl.clients[0];
  EXPECT_EQ(client.arguments, "master.example|1556|1|1|0||1|0|0|||||||0|0||0");
  EXPECT_EQ(client.acceptMediaTypes, std::vector<std::string>{"application/vnd.keepstone+json;version=6.0"});
  EXPECT_EQ(client.requests, std::vector<std::string>{R"(post keepstone/admin/jobs/7 {"policy":"gold"})"});
}

TEST_F(RestClientTest, AnswerFillsTheResponseAndIsLogged) {
  for (const cases::Row& c : cases::read("rest_answers.cases")) {
    fake::resetPlatform();
    fake::CurlAnswer answer{std::stol(c[0]), c[1], {}, {}};
    if (c[2] != "-") answer.headers["x-keepstone-warning"] = c[2];
    if (c[3] != "-") answer.headerLookupResult = std::stoi(c[3]);
    fake::curl.answers = {answer};
    EXPECT_EQ(request(0), std::stoi(c[4]));
    EXPECT_EQ(response(), c[5]);
    const std::string logged = "Curl request status: " + c[0] + ", message: " + c[1];
    EXPECT_EQ(fake::logLinesOf(kLogName), (std::vector<fake::LogLine>{{4, kLogName, logged}}));
  }
}

TEST_F(RestClientTest, UnsupportedRequestTypeLeavesTheResponseAlone) {
  for (const int32_t type : {2, -1}) {
    fake::resetPlatform();
    fake::curl.answers = {{200, "never read", {}, {}}};
    EXPECT_EQ(request(type), 20);
    EXPECT_EQ(response(), "77|earlier body|earlier warning");
    const fake::LogLine unsupported{16, kLogName, "Unsupported request type specified."};
    EXPECT_EQ(fake::logLinesOf(kLogName), std::vector<fake::LogLine>{unsupported});
    EXPECT_TRUE(fake::curl.clients.at(0).requests.empty());
  }
}

}  // namespace
