// The backup handler over the real stand-in platform: configuration file,
// request daemon over HTTP on loopback, log file.
#include "services/BackupServiceImpl.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>

#include "loopback_http_server.h"
#include "services/KSServiceException.h"
#include "services/ServiceData.h"
#include "standin_environment.h"

namespace {

struct Daemon {
  int status = 200;
  std::string body;
  std::string ksqdStatus;
  std::mutex mutex;
  std::string master, request;

  void routes(httplib::Server& server) {
    server.Post("/ksqd/1", [this](const httplib::Request& in, httplib::Response& out) {
      std::lock_guard<std::mutex> lock(mutex);
      master = in.get_header_value("X-Keepstone-Master");
      request = in.body;
      out.status = status;
      if (!ksqdStatus.empty()) out.set_header("X-Ksqd-Status", ksqdStatus);
      out.set_content(body, "application/json");
    });
  }
};

void askForGoldOnLoopback(EvictionServiceData& record) {
  record.policyName = "gold";
  record.masterServerName = "127.0.0.1";
}

TEST(BackupServiceOverStandin, StoresTheJobIdTheDaemonStarted) {
  Daemon daemon;
  daemon.body = R"({"jobid": 4711})";
  integration::LoopbackHttpServer server([&](httplib::Server& s) { daemon.routes(s); });
  integration::writeConfig("server = 127.0.0.1\nksqd_url = " + server.url() + "\n");
  const size_t logged = integration::logText().size();
  EvictionServiceData record;
  askForGoldOnLoopback(record);

  BackupServiceImpl handler;
  EXPECT_EQ(handler.handleRequest(&record), 0);

  EXPECT_EQ(record.jobId, 4711u);
  {
    std::lock_guard<std::mutex> lock(daemon.mutex);
    EXPECT_EQ(daemon.master, "127.0.0.1");
    EXPECT_EQ(daemon.request, R"({"policy": "gold"})");
  }
  const std::string added = integration::logText().substr(logged);
  EXPECT_NE(added.find(R"( 2 BackupServiceImpl::handleRequest: invoked  ksqd cct request: json_output={"jobid": 4711} ret Val:0)"),
            std::string::npos)
      << added;
  EXPECT_NE(added.find(" 4 BackupServiceImpl::handleRequest: BackupServiceImpl: Backup JobID: 4711\n"), std::string::npos)
      << added;
}

TEST(BackupServiceOverStandin, ReportsTheDaemonsFailureCode) {
  Daemon daemon;
  daemon.status = 500;
  daemon.ksqdStatus = "9";
  integration::LoopbackHttpServer server([&](httplib::Server& s) { daemon.routes(s); });
  integration::writeConfig("server = 127.0.0.1\nksqd_url = " + server.url() + "\n");
  EvictionServiceData record;
  askForGoldOnLoopback(record);

  BackupServiceImpl handler;
  try {
    handler.handleRequest(&record);
    FAIL() << "no exception";
  } catch (const KSServiceException& e) {
    EXPECT_EQ(e.m_code, 25);
    EXPECT_STREQ(e.what(), "Failed to invoke Ksqd CCT request. Return code:9");
  }
  EXPECT_EQ(record.jobId, 0u);
}

}  // namespace
