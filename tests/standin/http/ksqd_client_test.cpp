// The request-daemon client against the master simulator.
#include "platform/ksqd_client.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <gmock/gmock.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "case_table.h"
#include "fault_proxy/fault_proxy.h"
#include "platform/ks_curl_client.h"
#include "platform/ks_master_config.h"
#include "platform/ksu_log.h"
#include "rest/CCTCurlWrapper.h"
#include "rest/KeepstoneRestApi.h"
#include "standin_environment.h"

namespace {

using KsqdClient = integration::MasterOnLoopback;

// Armed, libcurl has no memory for a request's header list.
std::atomic<bool> g_noMemoryForHeaders{false};

}  // namespace

extern "C" curl_slist* curl_slist_append(curl_slist* list, const char* line) {
  using Append = curl_slist* (*)(curl_slist*, const char*);
  static const auto real = reinterpret_cast<Append>(dlsym(RTLD_NEXT, "curl_slist_append"));
  return g_noMemoryForHeaders ? nullptr : real(list, line);
}

namespace {

TEST_F(KsqdClient, FailureIsTheDaemonsStatusElseTheHttpStatus) {
  for (const cases::Row& c : cases::read("daemon_failures.cases")) {
    m_master.setPolicyFaults(c[0], {std::stoi(c[1]), std::stoi(c[2]), c[3] == "not-json", c[3] == "too-large"});
    char* answer = nullptr;
    const std::string request = R"({"policy": ")" + c[0] + "\"}";
    EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, request.c_str(), &answer), std::stoi(c[4])) << c[0];
    EXPECT_EQ(std::string(answer != nullptr ? answer : "<null>").substr(0, c[5].size()), c[5]) << c[0];
    std::free(answer);  // the caller's
  }
}

// The HTTP client's payload operation POSTs JSON.
TEST_F(KsqdClient, APayloadRequestOfTheHttpClientIsAJsonPost) {
  const KSCurlRequestParams params{"ksqd/1", R"({"policy": "gold"})", PAYLOAD_REQUEST};
  KSCurlResponse response{0, "", ""};
  EXPECT_EQ(KSCurlWrapper().makeRequest(params, response), 0);
  ASSERT_EQ(m_master.requests().size(), 1u);
  EXPECT_EQ(m_master.requests()[0].method + " " + m_master.requests()[0].headers.at("Content-Type"),
            "POST application/json");
}

// The daemon acts on a request whose answer never comes (the connection is
// reset): the call fails, and the request is not sent again.
TEST_F(KsqdClient, ARequestIsSentOnceEvenWhenItsAnswerIsLost) {
  faultproxy::FaultProxy daemon(0, "127.0.0.1", m_master.port());
  integration::writeConfig(
      "server = 127.0.0.1\nhttp_timeout = 5\nksqd_url = http://127.0.0.1:" + std::to_string(daemon.port()) + "\n");
  const char* request = R"({"policy": "gold"})";
  char* answer = nullptr;
  ASSERT_EQ(invoke_ksqd_cct_request("m1", 1, request, &answer), 0);
  std::free(answer);
  answer = nullptr;
  daemon.resetAnswers(1);
  EXPECT_EQ(invoke_ksqd_cct_request("m1", 1, request, &answer), -56);  // the connection was reset
  EXPECT_EQ(answer, nullptr);
  EXPECT_EQ(m_master.requests().size(), 2u);
}

// The jobs client hands back the master's status code and body as they came,
// for an answer that is not 200 as much as for one that is.
TEST_F(KsqdClient, TheJobsClientHandsBackTheStatusAndBodyOfEachAnswer) {
  const int64_t job = m_master.createJob("gold");
  struct Case {
    std::string path;
    std::string accept;
    long status;
    std::string bodyStart;
  } cases[] = {
      {std::string(keepstone_rest::kJobsPath) + std::to_string(job), keepstone_rest::kVersionedMediaType, 200,
       R"({"data":{"type":"job","id":")" + std::to_string(job)},
      {std::string(keepstone_rest::kJobsPath) + "999999", keepstone_rest::kVersionedMediaType, 404,
       R"({"errorCode":404)"},
      {std::string(keepstone_rest::kJobsPath) + std::to_string(job), "application/json", 406, R"({"errorCode":406)"},
  };
  const bool cancel = false;  // read through a reference while the client lives
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path + " " + c.accept);
    KSClientCURL client("127.0.0.1", 0, CERT_TYPE_PEM, KS_CURL_SESSION_SHARED, nullptr, "", true, false, false, "", "",
                        "", "", "", "", false, cancel, "", 0);
    client.setupAcceptCurlOption(c.accept);
    EXPECT_EQ(client.get(c.path), 0);
    EXPECT_EQ(client.m_responseCode, c.status);
    EXPECT_EQ(client.m_responseBody.substr(0, c.bodyStart.size()), c.bodyStart);
  }
}

// A poll whose kept-alive connection is reset once the master has read it
// goes again on a new connection, and the call succeeds, however often that
// happens to the pooled handle that carries the polls.
TEST_F(KsqdClient, APollThatFindsItsKeptConnectionResetGoesAgainOnANewOne) {
  faultproxy::FaultProxy master(0, "127.0.0.1", m_master.port());
  integration::writeConfig(
      "server = 127.0.0.1\nhttp_timeout = 5\nrest_url = http://127.0.0.1:" + std::to_string(master.port()) + "\n");
  const std::string path = keepstone_rest::kJobsPath + std::to_string(m_master.createJob("gold"));
  const bool cancel = false;  // read through a reference while a client lives
  const int polls = 8;
  for (int poll = 1; poll <= polls; ++poll) {
    if (poll > 1) master.resetAnswers(1);
    KSClientCURL client("127.0.0.1", 0, CERT_TYPE_PEM, KS_CURL_SESSION_SHARED, nullptr, "", true, false, false, "", "",
                        "", "", "", "", false, cancel, "", 0);
    client.setupAcceptCurlOption(keepstone_rest::kVersionedMediaType);
    EXPECT_EQ(client.get(path), 0) << poll;
    EXPECT_EQ(client.m_responseCode, 200) << poll;
  }
  EXPECT_EQ(m_master.requests().size(), 1u + 2 * (polls - 1));  // each later poll reset once, then sent again
  EXPECT_EQ(newLog().find(" 16 "), std::string::npos) << newLog();
}

// A base URL that is not http or https is refused with one line naming its
// key; an empty one means the default on the master, where nothing listens.
TEST_F(KsqdClient, BaseUrlsOtherThanHttpFailWithOneLineNamingTheKeyAndEmptyMeansDefault) {
  for (const cases::Row& c : cases::read("base_urls.cases")) {
    SCOPED_TRACE(c[0] + " = " + c[1]);
    integration::writeConfig("server = 127.0.0.1\nhttp_timeout = 5\n" + c[0] + " = " + c[1] + "\n");
    const size_t logStart = integration::logText().size();
    g_noMemoryForHeaders = c.size() > 4;
    if (c[0] == "ksqd_url") {
      char* answer = nullptr;
      EXPECT_EQ(invoke_ksqd_cct_request("127.0.0.1", 1, R"({"policy": "gold"})", &answer), std::stoi(c[3]));
      EXPECT_EQ(answer, nullptr);
    } else {
      KSCurlRequestParams params;
      params.uri = "keepstone/admin/jobs/1";
      params.requestType = 0;
      KSCurlResponse response{0, "earlier", ""};
      EXPECT_EQ(KSCurlWrapper().makeRequest(params, response), 0);
      EXPECT_EQ(response.statusCode, 0);
      EXPECT_EQ(response.message, "");
    }
    g_noMemoryForHeaders = false;
    const std::string log = integration::logText().substr(logStart);
    EXPECT_THAT(log, ::testing::HasSubstr(" 16 " + c[2]));
    EXPECT_EQ(log.find(" 16 "), log.rfind(" 16 ")) << log;
    EXPECT_EQ(log.find("secret"), std::string::npos) << log;
  }
  EXPECT_TRUE(m_master.requests().empty());
}

}  // namespace
