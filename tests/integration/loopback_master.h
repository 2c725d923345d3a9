// Test fixture: a master simulator on a free loopback port, a master
// configuration file that points REST requests at it, and the stand-in log
// written to a file the test can read.
#ifndef KSCDP_TESTS_INTEGRATION_LOOPBACK_MASTER_H_
#define KSCDP_TESTS_INTEGRATION_LOOPBACK_MASTER_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "master_sim/MasterSimulator.h"
#include "platform/ks_curl_client.h"

class LoopbackMasterTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Rewrites the configuration file: master 127.0.0.1, REST and request
  // daemon base `url`.
  void useRestUrl(const std::string& url);
  // A stand-in client made as the REST client makes it, accepting `mediaType`.
  static std::unique_ptr<KSClientCURL> client(const std::string& mediaType);
  // Log lines written since this test started.
  static std::string newLogLines();

  master_sim::MasterSimulator sim_;

 private:
  std::string configPath_;
  static size_t logStart_;
};

#endif  // KSCDP_TESTS_INTEGRATION_LOOPBACK_MASTER_H_
