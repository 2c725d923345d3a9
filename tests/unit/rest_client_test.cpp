#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fake_platform.h"
#include "rest/CCTCurlWrapper.h"

namespace {

const char kLogName[] = "KSCurlWrapper::makeRequest";
const char kMediaType[] = "application/vnd.keepstone+json;version=6.0";

class RestClientTest : public ::testing::Test {
 protected:
  void SetUp() override { fake::resetPlatform(); }
  // Every client is gone again, whichever way makeRequest left.
  void TearDown() override { EXPECT_EQ(fake::liveCurlClients(), 0); }

  static KSCurlRequestParams request(int32_t type, const std::string& uri = "keepstone/admin/jobs/7",
                                     const std::string& payload = "") {
    KSCurlRequestParams params;
    params.uri = uri;
    params.payload = payload;
    params.requestType = type;
    return params;
  }

  static KSCurlResponse untouchedResponse() { return KSCurlResponse{77, "earlier body", "earlier warning"}; }
};

TEST_F(RestClientTest, ClientGetsTheFirstServerAndTheFixedArguments) {
  fake::configScript().servers = {"master.example", "second.example"};
  KSCurlWrapper wrapper;
  KSCurlResponse response{};
  wrapper.makeRequest(request(0), response);

  ASSERT_EQ(fake::curlClients().size(), 1u);
  const fake::CurlClientRecord& client = fake::curlClients()[0];
  EXPECT_EQ(client.host, "master.example");
  EXPECT_EQ(client.port, 1556);
  EXPECT_EQ(client.certType, 1);
  EXPECT_EQ(client.sessionType, 1);
  EXPECT_EQ(client.tokenManager, nullptr);
  EXPECT_EQ(client.otherArguments, "|1|0|0|||||||0|0||0");
  EXPECT_EQ(client.acceptMediaTypes, std::vector<std::string>{kMediaType});
}

TEST_F(RestClientTest, RequestTypeChoosesGetOrPost) {
  KSCurlWrapper wrapper;
  KSCurlResponse response{};
  wrapper.makeRequest(request(0, "keepstone/admin/jobs/1", "ignored"), response);
  wrapper.makeRequest(request(1, "ksqd/1", "{\"policy\":\"gold\"}"), response);

  ASSERT_EQ(fake::curlCalls().size(), 2u);
  EXPECT_EQ(fake::curlCalls()[0].method, "get");
  EXPECT_EQ(fake::curlCalls()[0].path, "keepstone/admin/jobs/1");
  EXPECT_EQ(fake::curlCalls()[1].method, "post");
  EXPECT_EQ(fake::curlCalls()[1].path, "ksqd/1");
  EXPECT_EQ(fake::curlCalls()[1].body, "{\"policy\":\"gold\"}");
  // A fresh client for every request.
  EXPECT_EQ(fake::curlCalls()[0].client, 0u);
  EXPECT_EQ(fake::curlCalls()[1].client, 1u);
}

TEST_F(RestClientTest, AnswerFillsTheResponse) {
  struct Case {
    const char* name;
    fake::CurlAnswer answer;
    int result;
    const char* warning;
  };
  const Case cases[] = {
      {"no warning header", {404, "", {}, {}}, 0, "earlier warning"},
      {"warning header in any case", {200, "{}", {{"x-keepstone-warning", "disk nearly full"}}, {}}, 0,
       "disk nearly full"},
      {"lookup reports absent", {500, "oops", {}, 227}, 0, "earlier warning"},
      {"lookup fails otherwise", {200, "body", {}, 5}, 5, "earlier warning"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fake::resetPlatform();
    fake::curlScript().answers = {c.answer};
    KSCurlWrapper wrapper;
    KSCurlResponse response = untouchedResponse();
    EXPECT_EQ(wrapper.makeRequest(request(0), response), c.result);
    EXPECT_EQ(response.statusCode, c.answer.code);
    EXPECT_EQ(response.message, c.answer.body);
    EXPECT_EQ(response.warning, c.warning);
    const std::vector<fake::LogLine> expected{
        {4, kLogName, "Curl request status: " + std::to_string(c.answer.code) + ", message: " + c.answer.body}};
    EXPECT_EQ(fake::logLinesOf(kLogName), expected);
  }
}

TEST_F(RestClientTest, UnsupportedRequestTypeLeavesTheResponseAlone) {
  for (const int32_t type : {2, -1}) {
    SCOPED_TRACE(type);
    fake::resetPlatform();
    fake::curlScript().answers = {{200, "never read", {}, {}}};
    KSCurlWrapper wrapper;
    KSCurlResponse response = untouchedResponse();
    EXPECT_EQ(wrapper.makeRequest(request(type), response), 20);
    EXPECT_EQ(response.statusCode, 77);
    EXPECT_EQ(response.message, "earlier body");
    EXPECT_EQ(response.warning, "earlier warning");
    const std::vector<fake::LogLine> expected{{16, kLogName, "Unsupported request type specified."}};
    EXPECT_EQ(fake::logLinesOf(kLogName), expected);
    // The client was made and configured all the same, but never asked.
    ASSERT_EQ(fake::curlClients().size(), 1u);
    EXPECT_EQ(fake::curlClients()[0].acceptMediaTypes.size(), 1u);
    EXPECT_TRUE(fake::curlCalls().empty());
  }
}

}  // namespace
