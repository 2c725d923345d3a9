// The REST client and the job service over real HTTP, through the stand-in
// platform, against the master simulator.
#include <gmock/gmock.h>

#include <map>
#include <string>
#include <vector>

#include "rest/CCTCurlWrapper.h"
#include "services/JobServiceImpl.h"
#include "services/ServiceData.h"
#include "standin_environment.h"

namespace {

using ::testing::HasSubstr;

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

TEST_F(RestOverHttp, NoServerMeansStatusZeroAnEmptyBodyAndOneLogLine) {
  master_.stop();
  KSCurlRequestParams params;
  params.uri = "keepstone/admin/jobs/1";
  params.requestType = 0;
  KSCurlResponse response{0, "earlier", ""};
  EXPECT_EQ(KSCurlWrapper().makeRequest(params, response), 0);
  EXPECT_EQ(response.statusCode, 0);
  EXPECT_EQ(response.message, "");
  const std::string log = newLog();
  EXPECT_THAT(log, HasSubstr(" 16 KSClientCURL::get: GET " + master_.url() + "/keepstone/admin/jobs/1 failed: "));
  EXPECT_EQ(log.find(" 16 "), log.rfind(" 16 ")) << log;
}

}  // namespace
