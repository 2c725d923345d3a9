#include "services/BackupServiceImpl.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "services/KSServiceException.h"
#include "services/ServiceData.h"

namespace {

const char kHandle[] = "BackupServiceImpl::handleRequest";
const char kCreate[] = "BackupServiceImpl::createRequestPayload";
const char kNotJson[] = "Could not parse Backup API response message";
const char kMissing[] = "Could not parse ksqd eviction request response. Missing attribute: jobid";
const char kNotInteger[] =
    "Could not parse ksqd eviction request response. Invalid format received for Job id. Not integer.";

struct Thrown {
  int code = 0;  // 0: nothing was thrown
  std::string message;
};

template <typename Call>
Thrown thrownBy(Call call) {
  try {
    call();
  } catch (const KSServiceException& e) {
    return {e.m_code, e.what()};
  }
  return {};
}

class BackupServiceTest : public ::testing::Test {
 protected:
  // The fakes are reset before the handler reads the configuration.
  struct PlatformReset {
    PlatformReset() { fake::resetPlatform(); }
  } reset_;
  BackupServiceImpl handler_;

  // Asks for a manual backup of the policy gold with `record`.
  Thrown requestGold(EvictionServiceData& record) {
    record.policyName = "gold";
    return thrownBy([&] { handler_.handleRequest(&record); });
  }
};

TEST_F(BackupServiceTest, PayloadIsThePolicyNameEscapedByJansson) {
  const struct {
    std::string policy;
    std::string payload;
  } cases[] = {
      {"gold", R"({"policy": "gold"})"},
      {"a\"b", R"({"policy": "a\"b"})"},
      {"a/b", R"({"policy": "a/b"})"},
      {"tab\there\n", R"({"policy": "tab\there\n"})"},
      {"Gr\xc3\xbcn \xe6\x97\xa5\xe6\x9c\xac", "{\"policy\": \"Gr\xc3\xbcn \xe6\x97\xa5\xe6\x9c\xac\"}"},
      {"bad\xff\xfe", "{}"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(handler_.createRequestPayload(c.policy), c.payload) << c.policy;
  }
  EXPECT_TRUE(fake::logLines().empty());
}

// One daemon answer and what parsing it does to a job id that held 99.
struct AnswerCase {
  std::string answer;
  int code;  // 0: parsed
  std::string message;
  uint64_t jobId;
};

const AnswerCase kAnswerCases[] = {
    {R"({"jobid": 12345, "state": 1})", 0, "", 12345},
    {R"({"jobid": -1})", 0, "", UINT64_MAX},
    {R"({"jobid": 9223372036854775807})", 0, "", 9223372036854775807u},
    {R"({"jobid": "12345"})", 130, kNotInteger, 0},
    {R"({"jobid": 12345.0})", 130, kNotInteger, 0},
    {R"({"jobid": true})", 130, kNotInteger, 0},
    {R"({"jobid": {"id": 1}})", 130, kNotInteger, 0},
    {R"({"JobID": 1})", 130, kMissing, 99},
    {"[1, 2]", 130, kMissing, 99},
    {"", 130, kNotJson, 99},
    {"7", 130, kNotJson, 99},
    {R"({"jobid": 1)", 130, kNotJson, 99},
};

TEST_F(BackupServiceTest, SubmitsTheManualBackupAndStoresTheJobId) {
  fake::ksqdScript().answer = R"({"jobid": 4711})";
  EvictionServiceData record;
  record.policyName = "gold";
  record.masterServerName = "m1";

  EXPECT_EQ(handler_.handleRequest(&record), 0);

  ASSERT_EQ(fake::ksqdCalls().size(), 1u);
  EXPECT_EQ(fake::ksqdCalls()[0].masterServer, "m1");
  EXPECT_EQ(fake::ksqdCalls()[0].kind, 1);
  EXPECT_EQ(fake::ksqdCalls()[0].request, R"({"policy": "gold"})");
  EXPECT_EQ(record.jobId, 4711u);
  EXPECT_EQ(fake::logLines(), (std::vector<fake::LogLine>{
                                  {4, kHandle, "PolicyName: gold"},
                                  {4, kHandle, R"(Backup request payload: {"policy": "gold"})"},
                                  {2, kHandle, R"(invoked  ksqd cct request: json_output={"jobid": 4711} ret Val:0)"},
                                  {4, kHandle, "BackupServiceImpl: Backup JobID: 4711"},
                              }));
}

TEST_F(BackupServiceTest, FailedDaemonCallIsCode25WithTheReturnCode) {
  const struct {
    int result;
    std::string message;
  } cases[] = {
      {5, "Failed to invoke Ksqd CCT request. Return code:5"},
      {-7, "Failed to invoke Ksqd CCT request. Return code:-7"},
      {INT32_MIN, "Failed to invoke Ksqd CCT request. Return code:-2147483648"},
  };
  for (const auto& c : cases) {
    fake::resetPlatform();
    fake::ksqdScript().result = c.result;
    EvictionServiceData record;
    record.jobId = 77;

    const Thrown thrown = requestGold(record);

    EXPECT_EQ(thrown.code, 25);
    EXPECT_EQ(thrown.message, c.message);
    EXPECT_EQ(record.jobId, 77u);
    EXPECT_EQ(fake::ksqdCalls().size(), 1u);
    const std::vector<fake::LogLine> lines = fake::logLines();
    ASSERT_EQ(lines.size(), 3u) << c.result;
    EXPECT_EQ(lines[2], (fake::LogLine{16, kHandle, c.message}));
  }
}

TEST_F(BackupServiceTest, OnlyAnIntegerJobIdChangesTheRecord) {
  for (const AnswerCase& c : kAnswerCases) {
    fake::resetPlatform();
    fake::ksqdScript().answer = c.answer;
    EvictionServiceData record;
    record.jobId = 99;

    const Thrown thrown = requestGold(record);

    EXPECT_EQ(thrown.code, c.code) << c.answer;
    EXPECT_EQ(thrown.message, c.message) << c.answer;
    EXPECT_EQ(record.jobId, c.code == 0 ? c.jobId : 99u) << c.answer;
    const std::vector<fake::LogLine> lines = fake::logLines();
    ASSERT_EQ(lines.size(), c.code == 0 ? 4u : 3u) << c.answer;
    EXPECT_EQ(lines[2], (fake::LogLine{2, kHandle, "invoked  ksqd cct request: json_output=" + c.answer + " ret Val:0"}));
  }
}

TEST_F(BackupServiceTest, SuccessWithoutAnAnswerIsAnUnparsableAnswer) {
  fake::ksqdScript().hasAnswer = false;
  EvictionServiceData record;

  const Thrown thrown = requestGold(record);

  EXPECT_EQ(thrown.code, 130);
  EXPECT_EQ(thrown.message, kNotJson);
  EXPECT_EQ(record.jobId, 0u);
  ASSERT_EQ(fake::logLines().size(), 3u);
  EXPECT_EQ(fake::logLines()[2], (fake::LogLine{2, kHandle, "invoked  ksqd cct request: json_output= ret Val:0"}));
}

TEST_F(BackupServiceTest, WrongOrMissingRecordIsRefusedBeforeAnythingHappens) {
  AlertServiceData alert;
  JobServiceData job;
  ServiceData* const records[] = {nullptr, &alert, &job};
  for (ServiceData* record : records) {
    const Thrown thrown = thrownBy([&] { handler_.handleRequest(record); });
    EXPECT_EQ(thrown.code, 20);
    EXPECT_EQ(thrown.message, "Invalid shared common object is passed to worker service");
  }
  EXPECT_TRUE(fake::logLines().empty());
  EXPECT_TRUE(fake::ksqdCalls().empty());
}

TEST_F(BackupServiceTest, EmptyPolicyEndsTheRequestBeforeTheDaemonCall) {
  EvictionServiceData record;
  const Thrown thrown = thrownBy([&] { handler_.handleRequest(&record); });
  EXPECT_EQ(thrown.code, 20);
  EXPECT_EQ(thrown.message, "Empty policy name");
  EXPECT_EQ(fake::logLines(), (std::vector<fake::LogLine>{{4, kHandle, "PolicyName: "},
                                                          {16, kCreate, "Empty policy name."}}));
  EXPECT_TRUE(fake::ksqdCalls().empty());
}

}  // namespace
