// What a program that the engine starts inherits: only its standard
// descriptors, whether started with fork and exec or with posix_spawn, while
// the library holds connections to the master, the request daemon and the
// broker, its outbox, log and wake-up descriptors.
#include <gtest/gtest.h>

#include <string>

#include "master_sim/MasterSimulator.h"
#include "mosquitto_broker.h"
#include "program_run.h"
#include "standin_environment.h"

namespace {

const int kChildren = 20;

TEST(ExecdChildren, HoldOnlyTheirStandardDescriptors) {
  testbed::MosquittoBroker broker;
  master_sim::MasterSimulator master;
  ASSERT_TRUE(master.start());
  integration::writeConfig("server = 127.0.0.1\nhost_name = cdp-spawn\nrest_url = " + master.url() +
                           "\nksqd_url = " + master.url() + "\nbroker = " + broker.address() +
                           "\noutbox = " + integration::scratchPath("spawn-outbox.db") + "\n");
  const integration::ProgramRun run = integration::runProgram(
      std::string(KSCDP_SPAWNING_ENGINE_PATH) + " " + KSCDP_LIBRARY_PATH + " " + std::to_string(kChildren) + " 2>&1");
  EXPECT_EQ(run.exitStatus, 0) << run.output;
}

}  // namespace
