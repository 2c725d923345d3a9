// The manual's example programs, built as an engine builds them and run as
// an operator would: a real configuration file, the master simulator on
// loopback and a mosquitto broker. Whatever the master does, each ends in
// time and says why it stopped.
#include <gtest/gtest.h>

#include <string>

#include "case_table.h"
#include "master_sim/MasterSimulator.h"
#include "mosquitto_broker.h"
#include "program_run.h"
#include "standin_environment.h"

namespace {

TEST(ExamplesTest, EvictionEndsWhateverTheMasterDoesAndSaysWhy) {
  testbed::MosquittoBroker broker;
  const std::string down = "http://127.0.0.1:" + std::to_string(testbed::freeLoopbackPort());
  for (const cases::Row& c : cases::read("examples.cases")) {
    SCOPED_TRACE(c[0] + " " + c[1] + " " + c[3]);
    master_sim::MasterSimulatorOptions options;
    options.jobSeconds = std::stod(c[2]);
    master_sim::MasterSimulator master(options);
    ASSERT_TRUE(master.start());
    if (c[3] == "too-large") master.setPolicyFaults("gold", {0, 0, false, true});
    integration::writeConfig(
        cases::filled("server = 127.0.0.1\nhost_name = cdp-host\nbroker = {broker}\noutbox = {outbox}\n" + c[1],
                      {{"{master}", master.url()},
                       {"{down}", down},
                       {"{broker}", broker.address()},
                       {"{outbox}", integration::scratchPath("outbox.db")}}));
    const size_t logStart = integration::logText().size();

    const integration::ProgramRun example =
        integration::runProgram(std::string(KSCDP_EXAMPLES_DIR "/") + c[0] + " " + c[4]);

    EXPECT_EQ(example.exitStatus, std::stoi(c[5]));
    EXPECT_EQ(example.output, c[6]);
    EXPECT_LT(example.seconds, 30.0);
    if (c[7] != "-") {
      EXPECT_NE(integration::logText().find(c[7], logStart), std::string::npos)
          << integration::logText().substr(logStart);
    }
  }
}

}  // namespace
