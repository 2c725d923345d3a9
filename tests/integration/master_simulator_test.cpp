// The master simulator as the tests and the demo rely on it, seen through the
// stand-in HTTP client.
#include <gtest/gtest.h>

#include <string>

#include "loopback_master.h"

namespace {

using master_sim::kJobsMediaType;

class MasterSimulatorTest : public LoopbackMasterTest {
 protected:
  // GET of `path` accepting `mediaType`; the client keeps the answer.
  static std::unique_ptr<KSClientCURL> get(const std::string& path, const std::string& mediaType = kJobsMediaType) {
    std::unique_ptr<KSClientCURL> made = client(mediaType);
    made->get(path);
    return made;
  }

  static std::unique_ptr<KSClientCURL> postPolicy(const std::string& policy) {
    std::unique_ptr<KSClientCURL> made = client("application/json");
    made->post("ksqd/1", "{\"policy\":\"" + policy + "\"}");
    return made;
  }

  static std::string stateOf(int64_t id) {
    const std::string body = get("keepstone/admin/jobs/" + std::to_string(id))->m_responseBody;
    const std::string key = "\"state\":\"";
    const size_t start = body.find(key);
    if (start == std::string::npos) return "no state in " + body;
    return body.substr(start + key.size(), body.find('"', start + key.size()) - start - key.size());
  }

  static std::string header(KSClientCURL& answered, const std::string& name) {
    std::string value = "absent";
    answered.getHttpHeaderField(name, value);
    return value;
  }
};

TEST_F(MasterSimulatorTest, JobIsQueuedThenActiveThenDone) {
  const int64_t id = sim_.createJob("gold");
  EXPECT_EQ(stateOf(id), "QUEUED");
  sim_.advanceTime(1.0);
  EXPECT_EQ(stateOf(id), "ACTIVE");
  sim_.advanceTime(1.0);
  EXPECT_EQ(stateOf(id), "DONE");
}

TEST_F(MasterSimulatorTest, JobsOnlyAnswerTheirMediaTypeAndKnownIds) {
  const int64_t id = sim_.createJob("gold");
  const struct {
    std::string path;
    std::string mediaType;
    long code;
    std::string bodyStart;
  } cases[] = {
      {"keepstone/admin/jobs/" + std::to_string(id), "application/json", 406, R"({"errorCode":406,"errorMessage":")"},
      {"keepstone/admin/jobs/" + std::to_string(id), "", 406, R"({"errorCode":406,"errorMessage":")"},
      {"keepstone/admin/jobs/999", kJobsMediaType, 404, R"({"errorCode":404,"errorMessage":")"},
      {"keepstone/admin/jobs/gold", kJobsMediaType, 404, R"({"errorCode":404,"errorMessage":")"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path + " accepting " + c.mediaType);
    const std::unique_ptr<KSClientCURL> answered = get(c.path, c.mediaType);
    EXPECT_EQ(answered->m_responseCode, c.code);
    EXPECT_EQ(answered->m_responseBody.compare(0, c.bodyStart.size(), c.bodyStart), 0) << answered->m_responseBody;
  }
}

TEST_F(MasterSimulatorTest, DaemonStartsJobsWithIdsCountingUp) {
  master_sim::MasterSimulatorOptions options;
  options.firstJobId = 5000;
  options.jobSeconds = 0.0;
  master_sim::MasterSimulator sim(options);
  ASSERT_TRUE(sim.start());
  useRestUrl(sim.url());
  EXPECT_EQ(postPolicy("gold")->m_responseBody, R"({"jobid":5000})");
  const std::unique_ptr<KSClientCURL> second = postPolicy("silver");
  EXPECT_EQ(second->m_responseCode, 200);
  EXPECT_EQ(second->m_responseBody, R"({"jobid":5001})");
  EXPECT_NE(get("keepstone/admin/jobs/5001")->m_responseBody.find(R"("policyName":"silver","state":"DONE")"),
            std::string::npos);
}

TEST_F(MasterSimulatorTest, FaultSwitches) {
  master_sim::PolicyFaults refused;
  refused.httpStatus = 503;
  master_sim::PolicyFaults refusedByDaemon;
  refusedByDaemon.httpStatus = 500;
  refusedByDaemon.daemonStatus = 25;
  master_sim::PolicyFaults garbled;
  garbled.answerNotJson = true;
  sim_.setPolicyFaults("refused", refused);
  sim_.setPolicyFaults("refused by daemon", refusedByDaemon);
  sim_.setPolicyFaults("garbled", garbled);

  const std::unique_ptr<KSClientCURL> first = postPolicy("refused");
  EXPECT_EQ(first->m_responseCode, 503);
  EXPECT_EQ(header(*first, "X-Ksqd-Status"), "absent");
  const std::unique_ptr<KSClientCURL> second = postPolicy("refused by daemon");
  EXPECT_EQ(second->m_responseCode, 500);
  EXPECT_EQ(header(*second, "X-Ksqd-Status"), "25");
  const std::unique_ptr<KSClientCURL> third = postPolicy("garbled");
  EXPECT_EQ(third->m_responseCode, 200);
  EXPECT_EQ(third->m_responseBody[0], '<');

  master_sim::JobFaults notJson;
  notJson.bodyNotJson = true;
  const std::unique_ptr<KSClientCURL> job = get("keepstone/admin/jobs/" + std::to_string(sim_.createJob("gold", notJson)));
  EXPECT_EQ(job->m_responseCode, 200);
  EXPECT_EQ(job->m_responseBody[0], '<');
  // Refused, garbled and malformed requests start no job: the next id follows the job made above.
  const std::unique_ptr<KSClientCURL> malformed = client("application/json");
  malformed->post("ksqd/1", "policy=gold");
  EXPECT_EQ(malformed->m_responseCode, 400);
  EXPECT_EQ(postPolicy("gold")->m_responseBody, R"({"jobid":1001})");
}

TEST_F(MasterSimulatorTest, RequestsDocumentListsWhatClientsSent) {
  const std::unique_ptr<KSClientCURL> posted = postPolicy("gold");
  const int remotePort = sim_.requests().at(0).remotePort;
  const std::string expected =
      R"([{"method":"POST","path":"/ksqd/1","headers":{"Accept":"application/json","Content-Length":"17",)"
      R"("Content-Type":"application/json","Host":"127.0.0.1:)" +
      std::to_string(sim_.port()) + R"("},"body":"{\"policy\":\"gold\"}","remotePort":)" +
      std::to_string(remotePort) + "}]";
  EXPECT_EQ(get("sim/requests", "application/json")->m_responseBody, expected);
  // Asking for the record adds nothing to it.
  EXPECT_EQ(get("sim/requests", "application/json")->m_responseBody, expected);
  EXPECT_EQ(sim_.requestsJson(), expected);
}

}  // namespace
