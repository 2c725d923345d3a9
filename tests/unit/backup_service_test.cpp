#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "service_error.h"
#include "services/BackupServiceImpl.h"
#include "services/ServiceData.h"

namespace {

const char kHandle[] = "BackupServiceImpl::handleRequest";

class BackupServiceTest : public ::testing::Test {
 protected:
  // The fakes are reset before the handler reads the configuration.
  struct PlatformReset {
    PlatformReset() { fake::resetPlatform(); }
  } m_reset;
  BackupServiceImpl m_handler;
};

TEST_F(BackupServiceTest, LogsEachStepOfASubmittedBackup) {
  fake::ksqd.answer = R"({"jobid": 4711})";
  EvictionServiceData record;
  record.policyName = "gold";
  EXPECT_EQ(m_handler.handleRequest(&record), 0);
  EXPECT_EQ(record.jobId, 4711u);
  EXPECT_EQ(fake::logLines, (std::vector<fake::LogLine>{
                                {4, kHandle, "PolicyName: gold"},
                                {4, kHandle, R"(Backup request payload: {"policy": "gold"})"},
                                {2, kHandle, R"(invoked  ksqd cct request: json_output={"jobid": 4711} ret Val:0)"},
                                {4, kHandle, "BackupServiceImpl: Backup JobID: 4711"},
                            }));
}

TEST_F(BackupServiceTest, OnlyAnIntegerJobIdInASuccessfulAnswerChangesTheRecord) {
  const std::string notJson = "130 Could not parse Backup API response message";
  const std::string noJobId = "130 Could not parse ksqd eviction request response. Missing attribute: jobid";
  const std::string notInteger =
      "130 Could not parse ksqd eviction request response. Invalid format received for Job id. Not integer.";
  const std::string daemonFailed = "Failed to invoke Ksqd CCT request. Return code:";
  const struct {
    int result;
    const char* answer;  // null: the daemon hands back none
    std::string error;
    uint64_t jobId;
  } cases[] = {
      {0, R"({"jobid": 12345, "state": 1})", "", 12345},
      {0, R"({"jobid": -1})", "", UINT64_MAX},
      {0, R"({"jobid": 1, "jobid": 12})", "", 12},  // a repeated key is no error: the last one counts
      {0, R"({"jobid": "12345"})", notInteger, 99},
      {0, R"({"JobID": 1})", noJobId, 99},
      {0, R"({"jobid": 1)", notJson, 99},
      {0, nullptr, notJson, 99},
      {5, "", "25 " + daemonFailed + "5", 99},
      {-7, "", "25 " + daemonFailed + "-7", 99},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answer != nullptr ? c.answer : "no answer");
    fake::resetPlatform();
    fake::ksqd.result = c.result;
    fake::ksqd.hasAnswer = c.answer != nullptr;
    fake::ksqd.answer = c.answer != nullptr ? c.answer : "";
    EvictionServiceData record;
    record.policyName = "gold";
    record.jobId = 99;
    EXPECT_EQ(unit::serviceError([&] { m_handler.handleRequest(&record); }), c.error);
    EXPECT_EQ(record.jobId, c.jobId);
    if (c.result != 0) {
      EXPECT_EQ(fake::logLines.back(), (fake::LogLine{16, kHandle, daemonFailed + std::to_string(c.result)}));
    }
  }
}

TEST_F(BackupServiceTest, EmptyPolicyEndsTheRequestBeforeTheDaemonCall) {
  EvictionServiceData record;
  EXPECT_EQ(unit::serviceError([&] { m_handler.handleRequest(&record); }), "20 Empty policy name");
  EXPECT_EQ(fake::logLines,
            (std::vector<fake::LogLine>{{4, kHandle, "PolicyName: "},
                                        {16, "BackupServiceImpl::createRequestPayload", "Empty policy name."}}));
  EXPECT_TRUE(fake::ksqd.calls.empty());
}

}  // namespace
