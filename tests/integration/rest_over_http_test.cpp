// The REST client and the job service over real HTTP, through the stand-in
// platform, against the master simulator.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "loopback_master.h"
#include "rest/CCTCurlWrapper.h"
#include "services/BackupServiceImpl.h"
#include "services/JobServiceImpl.h"
#include "services/KSServiceException.h"
#include "services/ServiceData.h"

namespace {

const char kMediaType[] = "application/vnd.keepstone+json;version=6.0";

KSCurlRequestParams request(int32_t type, const std::string& uri, const std::string& payload = "") {
  KSCurlRequestParams params;
  params.uri = uri;
  params.payload = payload;
  params.requestType = type;
  return params;
}

std::string jobsPath(int64_t id) { return "keepstone/admin/jobs/" + std::to_string(id); }

class RestOverHttpTest : public LoopbackMasterTest {
 protected:
  std::string host() const { return "127.0.0.1:" + std::to_string(sim_.port()); }
};

TEST_F(RestOverHttpTest, JobServiceReportsTheJobAsTheServerSeesIt) {
  const int64_t id = sim_.createJob("gold");
  JobServiceImpl handler;
  JobServiceData job;
  job.jobId = static_cast<uint64_t>(id);
  EXPECT_EQ(handler.handleRequest(&job), 0);
  EXPECT_EQ(job.jobState, "QUEUED");
  EXPECT_EQ(job.jobStatus, 0);

  sim_.advanceTime(2.0);
  EXPECT_EQ(handler.handleRequest(&job), 0);
  EXPECT_EQ(job.jobState, "DONE");

  // Only the Accept media type besides what HTTP needs, on the jobs path.
  const std::vector<master_sim::RecordedRequest> seen = sim_.requests();
  ASSERT_EQ(seen.size(), 2u);
  const std::map<std::string, std::string> headers{{"Accept", kMediaType}, {"Host", host()}};
  for (const master_sim::RecordedRequest& received : seen) {
    EXPECT_EQ(received.method, "GET");
    EXPECT_EQ(received.path, "/" + jobsPath(id));
    EXPECT_EQ(received.headers, headers);
    EXPECT_EQ(received.body, "");
  }
}

TEST_F(RestOverHttpTest, UnknownJobIsNotFoundUntilTheServerKnowsIt) {
  master_sim::JobFaults faults;
  faults.unknownForPolls = 1;
  const int64_t id = sim_.createJob("gold", faults);
  KSCurlWrapper wrapper;
  KSCurlResponse response{};

  EXPECT_EQ(wrapper.makeRequest(request(0, jobsPath(id)), response), 0);
  EXPECT_EQ(response.statusCode, 404);
  EXPECT_EQ(response.message, R"({"errorCode":404,"errorMessage":"No job with id 1000"})");

  EXPECT_EQ(wrapper.makeRequest(request(0, jobsPath(id)), response), 0);
  EXPECT_EQ(response.statusCode, 200);
  EXPECT_EQ(response.message,
            R"({"data":{"type":"job","id":"1000","attributes":{"jobId":1000,"jobType":"BACKUP",)"
            R"("policyName":"gold","state":"QUEUED","status":0}}})");
}

TEST_F(RestOverHttpTest, PayloadRequestPostsJson) {
  KSCurlWrapper wrapper;
  KSCurlResponse response{};
  const std::string body = R"({"policy":"gold"})";
  EXPECT_EQ(wrapper.makeRequest(request(1, "ksqd/1", body), response), 0);
  EXPECT_EQ(response.statusCode, 200);
  EXPECT_EQ(response.message, R"({"jobid":1000})");

  const std::vector<master_sim::RecordedRequest> seen = sim_.requests();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].method, "POST");
  EXPECT_EQ(seen[0].path, "/ksqd/1");
  EXPECT_EQ(seen[0].body, body);
  const std::map<std::string, std::string> headers{{"Accept", kMediaType},
                                                   {"Content-Length", std::to_string(body.size())},
                                                   {"Content-Type", "application/json"},
                                                   {"Host", host()}};
  EXPECT_EQ(seen[0].headers, headers);
}

TEST_F(RestOverHttpTest, RequestsShareOneConnection) {
  const int64_t id = sim_.createJob("gold");
  KSCurlWrapper wrapper;
  KSCurlResponse response{};
  for (int i = 0; i < 3; ++i) wrapper.makeRequest(request(0, jobsPath(id)), response);
  wrapper.makeRequest(request(1, "ksqd/1", R"({"policy":"silver"})"), response);

  const std::vector<master_sim::RecordedRequest> seen = sim_.requests();
  ASSERT_EQ(seen.size(), 4u);
  for (const master_sim::RecordedRequest& received : seen) EXPECT_EQ(received.remotePort, seen[0].remotePort);
}

TEST_F(RestOverHttpTest, WarningHeaderIsFoundInAnyCase) {
  sim_.setResponseHeader("x-keepstone-warning", "licence expires soon");
  KSCurlWrapper wrapper;
  KSCurlResponse response{};
  EXPECT_EQ(wrapper.makeRequest(request(0, jobsPath(sim_.createJob("gold"))), response), 0);
  EXPECT_EQ(response.warning, "licence expires soon");
}

TEST_F(RestOverHttpTest, NoServerMeansCodeZeroOneLogLineAndAParseFailure) {
  sim_.stop();
  const std::string url = sim_.url() + "/" + jobsPath(1);
  KSCurlWrapper wrapper;
  KSCurlResponse response{0, "earlier", ""};
  EXPECT_EQ(wrapper.makeRequest(request(0, jobsPath(1)), response), 0);
  EXPECT_EQ(response.statusCode, 0);
  EXPECT_EQ(response.message, "");
  const std::string log = newLogLines();
  EXPECT_NE(log.find(" 16 KSClientCURL::get: GET " + url + " failed: "), std::string::npos) << log;

  // Status 0 is no "not known yet": one request, no pause, and nothing to parse.
  JobServiceImpl handler;
  JobServiceData job;
  job.jobId = 1;
  try {
    handler.handleRequest(&job);
    ADD_FAILURE() << "no exception";
  } catch (const KSServiceException& e) {
    EXPECT_EQ(e.m_code, 130);
    EXPECT_STREQ(e.what(), "Could not parse Jobs API response message.");
  }
}

TEST_F(RestOverHttpTest, BackupRequestStartsAJobTheJobsInterfaceKnows) {
  BackupServiceImpl backup;
  EvictionServiceData eviction;
  eviction.policyName = "gold";
  eviction.masterServerName = "127.0.0.1";
  EXPECT_EQ(backup.handleRequest(&eviction), 0);
  EXPECT_EQ(eviction.jobId, 1000u);

  const std::vector<master_sim::RecordedRequest> seen = sim_.requests();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].method, "POST");
  EXPECT_EQ(seen[0].path, "/ksqd/1");
  EXPECT_EQ(seen[0].headers.at("X-Keepstone-Master"), "127.0.0.1");
  EXPECT_EQ(seen[0].headers.at("Content-Type"), "application/json");
  EXPECT_EQ(seen[0].body, R"({"policy": "gold"})");

  sim_.advanceTime(2.0);
  JobServiceImpl jobs;
  JobServiceData job;
  job.jobId = eviction.jobId;
  jobs.handleRequest(&job);
  EXPECT_EQ(job.jobState, "DONE");
}

TEST_F(RestOverHttpTest, RefusedBackupRequestCarriesTheDaemonsStatus) {
  const struct {
    int httpStatus;
    int daemonStatus;
    const char* message;
  } cases[] = {
      {503, 77, "Failed to invoke Ksqd CCT request. Return code:77"},
      {500, 0, "Failed to invoke Ksqd CCT request. Return code:500"},
  };
  for (const auto& c : cases) {
    master_sim::PolicyFaults faults;
    faults.httpStatus = c.httpStatus;
    faults.daemonStatus = c.daemonStatus;
    sim_.setPolicyFaults("gold", faults);
    BackupServiceImpl backup;
    EvictionServiceData eviction;
    eviction.policyName = "gold";
    try {
      backup.handleRequest(&eviction);
      ADD_FAILURE() << "no exception";
    } catch (const KSServiceException& e) {
      EXPECT_EQ(e.m_code, 25);
      EXPECT_STREQ(e.what(), c.message);
    }
    EXPECT_EQ(eviction.jobId, 0u);
  }
}

}  // namespace
