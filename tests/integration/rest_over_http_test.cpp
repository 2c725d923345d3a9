// The REST client, the job service and the backup handler over real HTTP,
// through the stand-in platform, against the master simulator.
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "rest/CCTCurlWrapper.h"
#include "services/BackupServiceImpl.h"
#include "services/JobServiceImpl.h"
#include "services/KSServiceException.h"
#include "services/ServiceData.h"
#include "standin_environment.h"

namespace {

KSCurlRequestParams getJob(int64_t id) {
  KSCurlRequestParams params;
  params.uri = "keepstone/admin/jobs/" + std::to_string(id);
  params.requestType = 0;
  return params;
}

// "<code> <message>" of the KSServiceException that `handle` throws.
std::string serviceError(const std::function<void()>& handle) {
  try {
    handle();
  } catch (const KSServiceException& e) {
    return std::to_string(e.m_code) + " " + e.what();
  }
  return "no exception";
}

using RestOverHttp = integration::MasterOnLoopback;

TEST_F(RestOverHttp, JobServiceAsksForTheJobAndReportsItsState) {
  const int64_t id = master_.createJob("gold");
  JobServiceImpl handler;
  JobServiceData job;
  job.jobId = static_cast<uint64_t>(id);
  EXPECT_EQ(handler.handleRequest(&job), 0);
  EXPECT_EQ(job.jobState, "QUEUED");
  master_.advanceTime(2.0);
  EXPECT_EQ(handler.handleRequest(&job), 0);
  EXPECT_EQ(job.jobState, "DONE");
  EXPECT_EQ(job.jobStatus, 0);

  // One connection for every request; only the Accept media type besides
  // what HTTP needs.
  const std::vector<master_sim::RecordedRequest> seen = master_.requests();
  ASSERT_EQ(seen.size(), 2u);
  const std::map<std::string, std::string> headers{{"Accept", master_sim::kJobsMediaType},
                                                   {"Host", "127.0.0.1:" + std::to_string(master_.port())}};
  for (const master_sim::RecordedRequest& received : seen) {
    EXPECT_EQ(received.method, "GET");
    EXPECT_EQ(received.path, "/keepstone/admin/jobs/" + std::to_string(id));
    EXPECT_EQ(received.headers, headers);
    EXPECT_EQ(received.body, "");
    EXPECT_EQ(received.remotePort, seen[0].remotePort);
  }
}

TEST_F(RestOverHttp, UnknownJobIsNotFoundUntilTheServerKnowsIt) {
  master_sim::JobFaults faults;
  faults.unknownForPolls = 1;
  const int64_t id = master_.createJob("gold", faults);
  KSCurlWrapper wrapper;
  KSCurlResponse response{};
  EXPECT_EQ(wrapper.makeRequest(getJob(id), response), 0);
  EXPECT_EQ(response.statusCode, 404);
  EXPECT_EQ(response.message, R"({"errorCode":404,"errorMessage":"No job with id 1000"})");
  EXPECT_EQ(wrapper.makeRequest(getJob(id), response), 0);
  EXPECT_EQ(response.statusCode, 200);
  EXPECT_EQ(response.message, R"({"data":{"type":"job","id":"1000","attributes":{"jobId":1000,"jobType":"BACKUP",)"
                              R"("policyName":"gold","state":"QUEUED","status":0}}})");
}

TEST_F(RestOverHttp, NoServerMeansCodeZeroOneLogLineAndAParseFailure) {
  master_.stop();
  KSCurlWrapper wrapper;
  KSCurlResponse response{0, "earlier", ""};
  EXPECT_EQ(wrapper.makeRequest(getJob(1), response), 0);
  EXPECT_EQ(response.statusCode, 0);
  EXPECT_EQ(response.message, "");
  const std::string log = newLog();
  EXPECT_NE(log.find(" 16 KSClientCURL::get: GET " + master_.url() + "/keepstone/admin/jobs/1 failed: "),
            std::string::npos)
      << log;

  JobServiceImpl handler;
  JobServiceData job;
  job.jobId = 1;
  EXPECT_EQ(serviceError([&] { handler.handleRequest(&job); }), "130 Could not parse Jobs API response message.");
}

TEST_F(RestOverHttp, BackupStartsAJobTheJobsInterfaceKnowsOrCarriesTheDaemonsRefusal) {
  BackupServiceImpl backup;
  EvictionServiceData eviction;
  eviction.policyName = "gold";
  eviction.masterServerName = "127.0.0.1";
  EXPECT_EQ(backup.handleRequest(&eviction), 0);
  EXPECT_EQ(eviction.jobId, 1000u);
  EXPECT_EQ(master_.requests().at(0).body, R"({"policy": "gold"})");
  master_.advanceTime(2.0);
  JobServiceData job;
  job.jobId = eviction.jobId;
  JobServiceImpl().handleRequest(&job);
  EXPECT_EQ(job.jobState, "DONE");

  master_.setPolicyFaults("silver", {503, 77, false});
  EvictionServiceData refused;
  refused.policyName = "silver";
  refused.masterServerName = "127.0.0.1";
  EXPECT_EQ(serviceError([&] { backup.handleRequest(&refused); }),
            "25 Failed to invoke Ksqd CCT request. Return code:77");
  EXPECT_EQ(refused.jobId, 0u);
}

}  // namespace
