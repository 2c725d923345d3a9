#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "case_table.h"
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
  for (const cases::Row& c : cases::read("daemon_answers.cases")) {
    SCOPED_TRACE(c[1]);
    fake::resetPlatform();
    fake::ksqd.result = std::stoi(c[0]);
    fake::ksqd.hasAnswer = c[1] != "-";
    fake::ksqd.answer = fake::ksqd.hasAnswer ? c[1] : "";
    EvictionServiceData record;
    record.policyName = "gold";
    record.jobId = 99;
    EXPECT_EQ(unit::serviceError([&] { m_handler.handleRequest(&record); }), c[2]);
    EXPECT_EQ(record.jobId, std::stoull(c[3]));
    unsigned long parsed = 99;  // what the parse alone leaves
    unit::serviceError([&] { m_handler.parseRequestResponse(fake::ksqd.answer, parsed); });
    EXPECT_EQ(parsed, std::stoull(c[4]));
    if (fake::ksqd.result != 0) {
      EXPECT_EQ(fake::logLines.back(), (fake::LogLine{16, kHandle, c[2].substr(3)}));
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
