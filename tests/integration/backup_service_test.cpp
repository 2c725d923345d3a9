// The backup handler over the real stand-in platform: configuration file,
// request daemon over HTTP on loopback, log file.
#include "services/BackupServiceImpl.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>

#include "loopback_http_server.h"
#include "scripted_daemon.h"
#include "services/ServiceData.h"
#include "standin_environment.h"

namespace {

TEST(BackupServiceOverStandin, StoresTheJobIdTheDaemonStarted) {
  integration::ScriptedDaemon daemon;
  daemon.body = R"({"jobid": 4711})";
  integration::LoopbackHttpServer server([&](httplib::Server& s) { daemon.routes(s); });
  integration::writeConfig("server = 127.0.0.1\nksqd_url = " + server.url() + "\n");
  const size_t logged = integration::logText().size();
  EvictionServiceData record;
  record.policyName = "gold";
  record.masterServerName = "127.0.0.1";

  BackupServiceImpl handler;
  EXPECT_EQ(handler.handleRequest(&record), 0);

  EXPECT_EQ(record.jobId, 4711u);
  {
    std::lock_guard<std::mutex> lock(daemon.mutex);
    EXPECT_EQ(daemon.received.master, "127.0.0.1");
    EXPECT_EQ(daemon.received.body, R"({"policy": "gold"})");
  }
  const std::string added = integration::logText().substr(logged);
  EXPECT_NE(added.find(R"( 2 BackupServiceImpl::handleRequest: invoked  ksqd cct request: json_output={"jobid": 4711} ret Val:0)"),
            std::string::npos)
      << added;
  EXPECT_NE(added.find(" 4 BackupServiceImpl::handleRequest: BackupServiceImpl: Backup JobID: 4711\n"), std::string::npos)
      << added;
}

}  // namespace
