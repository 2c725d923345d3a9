#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "case_table.h"
#include "fake_platform.h"
#include "service_error.h"
#include "services/JobServiceImpl.h"
#include "services/ServiceData.h"

namespace {

const char kLogName[] = "JobServiceImpl::handleRequest";
const std::string kMissing = "130 Could not parse Jobs API response message, missing attribute: ";

fake::CurlAnswer answer(long code, const std::string& body) { return {code, body, {}, {}}; }

class JobServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake::resetPlatform();
    m_job.jobId = UINT64_MAX;  // asked for in decimal
    m_job.jobState = "before";
    m_job.jobStatus = 9;
  }
  void TearDown() override { EXPECT_EQ(fake::curl.live, 0); }

  std::string poll() {
    return unit::serviceError([this] { JobServiceImpl().handleRequest(&m_job); });
  }

  JobServiceData m_job;
};

TEST_F(JobServiceTest, PollsOnlyWhileTheServerDoesNotKnowTheJob) {
  const fake::CurlAnswer notKnown = answer(404, R"({"errorCode":404,"errorMessage":"No job with id 1"})");
  // Without a status the job reports 0.
  const fake::CurlAnswer active = answer(200, R"({"data":{"attributes":{"state":"ACTIVE"}}})");
  const std::string path = "keepstone/admin/jobs/18446744073709551615";
  const struct {
    const char* name;
    std::vector<fake::CurlAnswer> answers;
    size_t requests;
    size_t pauses;
    std::string error;  // "" when the record gets the ACTIVE job
  } cases[] = {
      {"known at the third request", {notKnown, notKnown, active}, 3, 2, ""},
      {"never known: the fifth body is parsed",
       {notKnown, notKnown, notKnown, notKnown, notKnown, active},
       5,
       5,
       kMissing + "data"},
      {"server error is not retried", {answer(500, notKnown.body), notKnown}, 1, 0, kMissing + "data"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SetUp();
    fake::curl.answers.assign(c.answers.begin(), c.answers.end());
    EXPECT_EQ(poll(), c.error);
    ASSERT_EQ(fake::curl.clients.size(), c.requests);
    for (const fake::CurlClientRecord& client : fake::curl.clients) {
      EXPECT_EQ(client.requests, std::vector<std::string>{"get " + path});  // a client each
    }
    EXPECT_EQ(fake::logLinesOf(kLogName), (std::vector<fake::LogLine>{{4, kLogName, "Invoking jobs URI: " + path}}));
    ASSERT_EQ(fake::pauses.size(), c.pauses);
    for (const timespec& pause : fake::pauses) EXPECT_EQ(pause.tv_sec * 1000000000 + pause.tv_nsec, 3000000000);
    EXPECT_EQ(m_job.jobState + " " + std::to_string(m_job.jobStatus), c.error.empty() ? "ACTIVE 0" : "before 9");
  }
}

TEST_F(JobServiceTest, RestClientFailureBecomesAServiceFailureWithItsCode) {
  fake::curl.requestThrows = std::make_exception_ptr(KSCurlWrapperException(7, "connection reset"));
  EXPECT_EQ(poll(), "7 connection reset");
  EXPECT_EQ(m_job.jobState, "before");
  EXPECT_EQ(
      fake::logLinesOf(kLogName).back(),
      (fake::LogLine{16, kLogName, "KSCurl Exception occured, error code: 7\nException message: connection reset"}));
}

TEST(JobResponseParsing, ReadsStateAndStatusOrNamesWhatIsMissing) {
  fake::resetPlatform();
  const JobServiceImpl handler;
  for (const cases::Row& c : cases::read("job_answers.cases")) {
    std::string state = "unset";
    int status = -7;
    const std::string error = unit::serviceError([&] { EXPECT_EQ(handler.parseResponse(c[0], state, status), 0); });
    const std::string outputs = state + " " + std::to_string(status);
    EXPECT_EQ(error.empty() ? outputs : error, c[1]) << c[0].substr(0, 80);
    if (!error.empty()) {
      EXPECT_EQ(outputs, "unset -7") << "a failed parse leaves the outputs alone";
    }
  }
}

}  // namespace
