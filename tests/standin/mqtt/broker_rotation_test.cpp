// The order in which the publisher tries the broker list, and its pauses.
#include "platform/standin/mqtt/broker_rotation.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>

#include "case_table.h"

namespace {

TEST(BrokerRotation, TriesEachEntryInTurnAndPausesOnlyAfterAWholeRound) {
  using std::chrono::milliseconds;
  for (const cases::Row& c : cases::read("broker_rotations.cases")) {
    standin::BrokerRotation rotation(milliseconds(100), milliseconds(1000));
    std::istringstream attempts(c[0]);
    std::string trace;
    for (std::string attempt; attempts >> attempt;) {
      trace += (trace.empty() ? "" : " ") + std::to_string(rotation.entryToTry(std::stoul(attempt)));
      if (attempt.back() == 'c') {
        rotation.connected();
      } else {
        trace += "/" + std::to_string(std::chrono::duration_cast<milliseconds>(rotation.attemptFailed()).count());
      }
    }
    EXPECT_EQ(trace, c[1]) << c[0];
  }
}

}  // namespace
