// Power cuts at random points of a stream of alerts into the outbox: each
// stream runs in a child process through power_cut_vfs.h, and what its cut
// left is opened again by the outbox's own code over the default VFS.
//
// KSCDP_POWER_CUTS sets the cuts per sync setting (default 40);
// KSCDP_POWER_CUTS_TIMED the cuts of the stream paced as an engine's, with
// a checkpoint a second (default 0: skipped).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "platform/standin/outbox/outbox.h"
#include "standin/outbox/alert_stream.h"
#include "standin/outbox/power_cut_vfs.h"

namespace {

using power_cut::StreamPlan;
using power_cut::StreamReport;

int fromEnvironment(const char* name, int fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::atoi(value) : fallback;
}

// What the cuts of one run lost.
struct Losses {
  int cuts = 0;
  int cutsThatLost = 0;
  int64_t alerts = 0;  // accepted, not yet delivered, and gone after the cut
  int64_t mostInOneCut = 0;
  int64_t oldestMicros = 0;  // the age at the cut of the oldest alert lost

  std::string summary(const char* setting) const {
    std::ostringstream text;
    text << "outbox_sync = " << setting << ": " << cuts << " cuts, " << cutsThatLost
         << " of them lost alerts: " << alerts << " in all, at most " << mostInOneCut << " in one cut, the oldest "
         << oldestMicros / 1000 << " ms old";
    return text.str();
  }
};

class PowerCut : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kscdp-power-cut-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    s_dir = pattern;
    setenv("KSU_LOG_FILE", (s_dir + "/log").c_str(), 1);
  }
  static void TearDownTestSuite() { std::filesystem::remove_all(s_dir); }

  // Learns how many writes, truncations and syncs a whole stream makes.
  uint64_t operationsOfAWholeStream(StreamPlan plan) {
    plan.cutBeforeOperation = 0;
    return runToTheCut(plan).operations;
  }

  // Runs `plan` to its cut in a child process, then checks what the outbox
  // holds: every alert accepted, and not delivered, before the last sync of
  // the WAL (every one with `everyAcceptedSynced`), once and in order, and
  // nothing else but perhaps the one being appended at the cut.
  void cutAndCheck(const StreamPlan& plan, bool everyAcceptedSynced, Losses& losses) {
    const StreamReport report = runToTheCut(plan);
    EXPECT_TRUE(report.failure.empty()) << report.failure;
    EXPECT_GT(report.operations, 0u) << "the outbox's writes went round the power-cut VFS";
    if (!report.failure.empty()) return;
    const std::vector<standin::Outbox::Event> held = reopen(plan);
    int64_t previous = 0;
    std::vector<bool> found(report.accepted.size() + 2, false);
    for (const standin::Outbox::Event& event : held) {
      const int64_t sequence = power_cut::alertSequence(event.payload);
      EXPECT_GT(sequence, previous) << "out of order, twice or not an alert: " << event.payload.substr(0, 40);
      EXPECT_LE(sequence, static_cast<int64_t>(report.accepted.size()) + 1) << "never appended";
      if (sequence <= previous || sequence > static_cast<int64_t>(report.accepted.size()) + 1) return;
      found[sequence] = true;
      previous = sequence;
    }
    int64_t lost = 0;
    for (const power_cut::Accepted& alert : report.accepted) {
      if (found[alert.sequence] || report.removed.count(alert.sequence) > 0) continue;
      EXPECT_FALSE(everyAcceptedSynced) << "alert " << alert.sequence << " of " << report.accepted.size() << " lost";
      EXPECT_GT(alert.sequence, report.durableThrough) << "lost although a sync of the WAL came after it";
      losses.oldestMicros = std::max(losses.oldestMicros, report.cutMicros - alert.micros);
      ++lost;
    }
    ++losses.cuts;
    losses.cutsThatLost += lost > 0;
    losses.alerts += lost;
    losses.mostInOneCut = std::max(losses.mostInOneCut, lost);
  }

  // A fresh outbox path for each stream.
  std::string nextOutbox() { return s_dir + "/cut-" + std::to_string(++m_streams) + "/outbox.db"; }

  static std::string s_dir;  // every file of the suite

 private:
  StreamReport runToTheCut(const StreamPlan& plan) {
    std::filesystem::remove_all(std::filesystem::path(plan.outboxPath).parent_path());
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return failed("no pipe");
    const pid_t child = fork();
    if (child < 0) return failed("cannot fork");
    if (child == 0) {
      close(pipeFds[0]);
      power_cut::runStream(plan, pipeFds[1]);
    }
    close(pipeFds[1]);
    StreamReport report = power_cut::readReport(pipeFds[0]);
    close(pipeFds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    power_cut::scrambleIndex(plan.outboxPath, plan.seed);
    if (WIFSIGNALED(status))
      report.failure += "; the stream's process died of signal " + std::to_string(WTERMSIG(status));
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
      report.failure += "; the stream's process ended with status " + std::to_string(WEXITSTATUS(status));
    }
    return report;
  }

  static StreamReport failed(const char* why) {
    StreamReport report;
    report.failure = why;
    return report;
  }

  // Opens the outbox again as the next publisher would, checks the whole
  // file, and returns what it holds.
  std::vector<standin::Outbox::Event> reopen(const StreamPlan& plan) {
    const std::string logPath = s_dir + "/log";
    const uintmax_t logStart = std::filesystem::exists(logPath) ? std::filesystem::file_size(logPath) : 0;
    std::string error;
    std::unique_ptr<standin::Outbox> outbox = power_cut::openOutbox(plan.outboxPath, plan.fullSync, error);
    EXPECT_TRUE(outbox) << error;
    if (!outbox) return {};
    EXPECT_EQ(integrityCheck(plan.outboxPath), "ok");
    EXPECT_EQ(outbox->checkWhole(), "");
    std::vector<standin::Outbox::Event> held = outbox->waiting(0, 1 << 20);
    outbox.reset();
    std::ifstream log(logPath);
    log.seekg(static_cast<std::streamoff>(logStart));
    const std::string logged((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
    EXPECT_EQ(logged.find("set aside"), std::string::npos) << logged;
    return held;
  }

  static std::string integrityCheck(const std::string& path) {
    sqlite3* db = nullptr;
    std::string verdict = "cannot open";
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
      sqlite3_stmt* statement = nullptr;
      if (sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &statement, nullptr) == SQLITE_OK &&
          sqlite3_step(statement) == SQLITE_ROW) {
        verdict = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
      } else {
        verdict = sqlite3_errmsg(db);
      }
      sqlite3_finalize(statement);
    }
    sqlite3_close(db);
    return verdict;
  }

  int m_streams = 0;
};

std::string PowerCut::s_dir;

// Streams of 300 alerts with a checkpoint every 25, each cut before a write,
// truncation or sync drawn from the seed.
struct CutsAtRandomOperations {
  const char* setting;
  bool fullSync;
};

class PowerCutAtRandomOperations : public PowerCut, public ::testing::WithParamInterface<CutsAtRandomOperations> {};

TEST_P(PowerCutAtRandomOperations, KeepsWhatTheSyncSettingPromises) {
  const CutsAtRandomOperations& setting = GetParam();
  StreamPlan plan;
  plan.fullSync = setting.fullSync;
  plan.outboxPath = nextOutbox();
  const uint64_t operations = operationsOfAWholeStream(plan);
  ASSERT_GT(operations, 300u);
  std::mt19937_64 draw(fromEnvironment("KSCDP_POWER_CUT_SEED", 1));
  Losses losses;
  const int cuts = fromEnvironment("KSCDP_POWER_CUTS", 40);
  for (int i = 0; i < cuts && !HasFailure(); ++i) {
    plan.seed = draw();
    plan.cutBeforeOperation = 1 + plan.seed % operations;
    plan.outboxPath = nextOutbox();
    SCOPED_TRACE("cut " + std::to_string(i) + ", seed " + std::to_string(plan.seed));
    cutAndCheck(plan, setting.fullSync, losses);
  }
  std::printf("power cut: %s\n", losses.summary(setting.setting).c_str());
}

INSTANTIATE_TEST_SUITE_P(Settings, PowerCutAtRandomOperations,
                         ::testing::Values(CutsAtRandomOperations{"full", true},
                                           CutsAtRandomOperations{"normal", false}),
                         [](const ::testing::TestParamInfo<CutsAtRandomOperations>& info) {
                           return std::string(info.param.setting);
                         });

// With `normal`, alerts about a millisecond apart and a checkpoint a second,
// as the publisher asks for one, cut at a random moment: what is lost is
// what came since the last sync, about the last second.
TEST_F(PowerCut, WithNormalSyncAtAnEnginesPaceLosesAboutTheLastSecondAtMost) {
  const int cuts = fromEnvironment("KSCDP_POWER_CUTS_TIMED", 0);
  if (cuts == 0) GTEST_SKIP() << "KSCDP_POWER_CUTS_TIMED is 0";
  std::mt19937_64 draw(fromEnvironment("KSCDP_POWER_CUT_SEED", 1));
  StreamPlan plan;
  plan.appendsPerCheckpoint = 0;
  plan.pause = std::chrono::microseconds(1000);
  Losses losses;
  for (int i = 0; i < cuts && !HasFailure(); ++i) {
    plan.seed = draw();
    plan.cutAfter = std::chrono::milliseconds(300 + plan.seed % 3000);
    plan.outboxPath = nextOutbox();
    SCOPED_TRACE("timed cut " + std::to_string(i) + ", seed " + std::to_string(plan.seed));
    cutAndCheck(plan, false, losses);
  }
  std::printf("power cut at an engine's pace: %s\n", losses.summary("normal").c_str());
  // Generous: a checkpoint waits for the machine; the promise is about a second.
  EXPECT_LT(losses.oldestMicros, 5 * 1000 * 1000);
}

}  // namespace
