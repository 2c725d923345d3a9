#include "services/JobServiceImpl.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "services/KSServiceException.h"
#include "services/ServiceData.h"

namespace {

const char kLogName[] = "JobServiceImpl::handleRequest";
const char kErrorDocument[] = R"({"errorCode":404,"errorMessage":"No job with id 4711"})";
const std::string kMissing = "Could not parse Jobs API response message, missing attribute: ";
const std::string kUnparsable = "Could not parse Jobs API response message.";

std::string jobDocument(const std::string& state) {
  return R"({"data":{"type":"job","id":"4711","attributes":{"jobId":4711,"jobType":"BACKUP","state":")" +
         state + R"(","status":3}}})";
}

fake::CurlAnswer answer(long code, const std::string& body) { return {code, body, {}, {}}; }

class JobServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake::resetPlatform();
    job_.jobId = 4711;
    job_.jobState = "before";
    job_.jobStatus = 9;
  }
  void TearDown() override { EXPECT_EQ(fake::liveCurlClients(), 0); }

  void expectRecordUntouched() const {
    EXPECT_EQ(job_.jobState, "before");
    EXPECT_EQ(job_.jobStatus, 9);
  }

  JobServiceData job_;
};

// Runs the handler on `record` and reports the message of the exception it
// threw, or "" when it returned.
std::string failureOf(JobServiceImpl& handler, ServiceData* record) {
  try {
    handler.handleRequest(record);
    return "";
  } catch (const KSServiceException& e) {
    EXPECT_EQ(e.m_code, 130);
    return e.what();
  }
}

TEST_F(JobServiceTest, PollsOnlyWhileTheServerDoesNotKnowTheJob) {
  struct Case {
    const char* name;
    std::vector<fake::CurlAnswer> answers;
    size_t requests;
    size_t pauses;
    std::string failure;  // "" when the record gets the ACTIVE job
  };
  const fake::CurlAnswer notKnown = answer(404, kErrorDocument);
  const Case cases[] = {
      {"known at the third request", {notKnown, notKnown, answer(200, jobDocument("ACTIVE"))}, 3, 2, ""},
      {"never known: the fifth body is parsed",
       {notKnown, notKnown, notKnown, notKnown, notKnown, answer(200, jobDocument("ACTIVE"))}, 5, 5,
       kMissing + "data"},
      {"server error is not retried", {answer(500, kErrorDocument), notKnown}, 1, 0, kMissing + "data"},
      {"any other status with a job state counts", {answer(202, jobDocument("ACTIVE"))}, 1, 0, ""},
      {"no answer at all", {}, 1, 0, kUnparsable},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SetUp();
    fake::curlScript().answers.assign(c.answers.begin(), c.answers.end());
    JobServiceImpl handler;
    EXPECT_EQ(failureOf(handler, &job_), c.failure);

    ASSERT_EQ(fake::curlCalls().size(), c.requests);
    EXPECT_EQ(fake::curlClients().size(), c.requests);
    for (const fake::CurlCall& call : fake::curlCalls()) {
      EXPECT_EQ(call.method, "get");
      EXPECT_EQ(call.path, "keepstone/admin/jobs/4711");
    }
    ASSERT_EQ(fake::pauses().size(), c.pauses);
    for (const timespec& pause : fake::pauses()) {
      EXPECT_EQ(pause.tv_sec, 3);
      EXPECT_EQ(pause.tv_nsec, 0);
    }
    if (c.failure.empty()) {
      EXPECT_EQ(job_.jobState, "ACTIVE");
      EXPECT_EQ(job_.jobStatus, 3);
    } else {
      expectRecordUntouched();
    }
  }
}

TEST_F(JobServiceTest, PathIsTheJobIdInDecimal) {
  const std::pair<uint64_t, std::string> cases[] = {
      {0, "keepstone/admin/jobs/0"},
      {std::numeric_limits<uint64_t>::max(), "keepstone/admin/jobs/18446744073709551615"},
  };
  for (const auto& c : cases) {
    SetUp();
    fake::curlScript().answers = {answer(200, jobDocument("DONE"))};
    job_.jobId = c.first;
    JobServiceImpl handler;
    EXPECT_EQ(handler.handleRequest(&job_), 0);
    ASSERT_EQ(fake::curlCalls().size(), 1u);
    EXPECT_EQ(fake::curlCalls()[0].path, c.second);
    const std::vector<fake::LogLine> expected{{4, kLogName, "Invoking jobs URI: " + c.second}};
    EXPECT_EQ(fake::logLinesOf(kLogName), expected);
  }
}

TEST_F(JobServiceTest, RejectsRecordsOfAnotherKindBeforeAnyRequest) {
  JobServiceImpl handler;
  AlertServiceData alert;
  for (ServiceData* record : {static_cast<ServiceData*>(nullptr), static_cast<ServiceData*>(&alert)}) {
    try {
      handler.handleRequest(record);
      ADD_FAILURE() << "no exception";
    } catch (const KSServiceException& e) {
      EXPECT_EQ(e.m_code, 20);
      EXPECT_STREQ(e.what(), "Invalid shared common object is passed to worker service");
    }
  }
  EXPECT_TRUE(fake::curlClients().empty());
}

TEST_F(JobServiceTest, RestClientFailureBecomesServiceFailure) {
  fake::curlScript().requestThrows = std::make_exception_ptr(KSCurlWrapperException(7, "connection reset"));
  JobServiceImpl handler;
  try {
    handler.handleRequest(&job_);
    ADD_FAILURE() << "no exception";
  } catch (const KSServiceException& e) {
    EXPECT_EQ(e.m_code, 7);
    EXPECT_STREQ(e.what(), "connection reset");
  }
  expectRecordUntouched();
  const std::vector<fake::LogLine> lines = fake::logLinesOf(kLogName);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], (fake::LogLine{16, kLogName,
                                     "KSCurl Exception occured, error code: 7\nException message: connection reset"}));
}

TEST_F(JobServiceTest, MissingStatusReportsZero) {
  fake::curlScript().answers = {answer(200, R"({"data":{"attributes":{"state":"DONE"}}})")};
  JobServiceImpl handler;
  EXPECT_EQ(handler.handleRequest(&job_), 0);
  EXPECT_EQ(job_.jobState, "DONE");
  EXPECT_EQ(job_.jobStatus, 0);
}

TEST(JobResponseParsing, ReadsStateAndStatusOrNamesWhatIsMissing) {
  struct Case {
    std::string body;
    std::string failure;  // "" when parsing succeeds
    std::string state;
    int status;
  };
  const std::string deepArray = std::string(2000, '[') + std::string(2000, ']');
  const std::string tooDeep = std::string(100000, '[') + std::string(100000, ']');
  const Case cases[] = {
      {R"({"data":{"attributes":{"state":"DONE","status":0}}})", "", "DONE", 0},
      {R"({"data":{"attributes":{"state":"ACTIVE"}}})", "", "ACTIVE", -7},
      {R"({"data":{"attributes":{"state":"DONE","status":4294967297}}})", "", "DONE", 1},
      {R"({"data":{"attributes":{"state":"DONE","status":"3"}}})", "", "DONE", 0},
      {R"({"x":[1],"data":{"y":{},"attributes":{"z":true,"state":"QUEUED","status":5}}})", "", "QUEUED", 5},
      {"", kUnparsable, "", 0},
      {"42", kUnparsable, "", 0},
      {R"({"data":{"attributes":{"state":"DONE"}})", kUnparsable, "", 0},
      {tooDeep, kUnparsable, "", 0},
      {R"({"data":{"attributes":{"state":"A\u0000B"}}})", kUnparsable, "", 0},
      {R"({"errorCode":404,"errorMessage":"No job"})", kMissing + "data", "", 0},
      {R"([{"data":{"attributes":{"state":"DONE"}}}])", kMissing + "data", "", 0},
      {deepArray, kMissing + "data", "", 0},
      {R"({"data":[{"attributes":{"state":"DONE"}}]})", kMissing + "attributes", "", 0},
      {R"({"data":{"attributes":[{"state":"DONE"}]}})", kMissing + "jobstate", "", 0},
      {R"({"data":{"attributes":{"state":5,"status":1}}})", kMissing + "jobstate", "", 0},
  };
  fake::resetPlatform();
  const JobServiceImpl handler;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body.substr(0, 80));
    std::string state = "unset";
    int status = -7;
    try {
      EXPECT_EQ(handler.parseResponse(c.body, state, status), 0);
      EXPECT_EQ(c.failure, "");
      EXPECT_EQ(state, c.state);
      EXPECT_EQ(status, c.status);
    } catch (const KSServiceException& e) {
      EXPECT_EQ(e.m_code, 130);
      EXPECT_EQ(e.what(), c.failure);
      EXPECT_EQ(state, "unset");
      EXPECT_EQ(status, -7);
    }
  }
}

}  // namespace
