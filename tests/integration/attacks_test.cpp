// What a second local user, or a careless hand with the engine's own rights,
// can plant or do beside a running engine, and what must come of it: one row
// of tests/data/attacks.cases each. A row runs in a stage directory of its
// own, with a configuration file and a log of its own, against one broker
// and subscriber. Rows that need a second user skip themselves where no user
// can be made; the user made for the run is removed after it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "case_table.h"
#include "mosquitto_broker.h"
#include "mqtt_subscriber.h"
#include "program_run.h"
#include "standin_environment.h"

namespace {

using Messages = testbed::MqttSubscriber::Messages;

const char kTopic[] = "keepstone/notifications";
const std::chrono::seconds kDeliveryTimeout(20);
// How long a row waits, after what it expects has arrived, for what must
// never arrive.
const std::chrono::seconds kWithheldGrace(2);

// A second local user for the run, made with useradd and removed with
// userdel; empty() when none could be made (not root, or no useradd).
class Stranger {
 public:
  Stranger() : m_name("kscdp-attacker-" + std::to_string(getpid())) {
    if (geteuid() != 0 ||
        std::system(
            ("useradd --system --no-create-home --shell /usr/sbin/nologin " + m_name + " 2>/dev/null").c_str()) != 0) {
      m_name.clear();
    }
  }
  ~Stranger() {
    if (!m_name.empty() && std::system(("userdel " + m_name).c_str()) != 0) {
      std::fprintf(stderr, "cannot remove the user %s: remove it with userdel\n", m_name.c_str());
    }
  }
  Stranger(const Stranger&) = delete;
  Stranger& operator=(const Stranger&) = delete;

  bool empty() const { return m_name.empty(); }
  // The prefix that runs a command as this user.
  std::string runAs() const { return "runuser -u " + m_name + " --"; }

 private:
  std::string m_name;
};

// Writes `text` to `path`.
void writeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::trunc);
  file << text;
  ASSERT_TRUE(file.good()) << path;
}

// Whether the numbered event `seq` is among `messages`.
bool hasSeq(const Messages& messages, long seq) {
  const std::string mark = "\"seq\":\"" + std::to_string(seq) + "\"";
  return std::any_of(messages.begin(), messages.end(),
                     [&mark](const std::string& m) { return m.find(mark) != std::string::npos; });
}

// The numbered events a "delivered:FIRST-LAST" expectation names.
std::vector<long> seqRange(const std::string& range) {
  const size_t dash = range.find('-');
  const long first = std::strtol(range.c_str(), nullptr, 10);
  const long last = dash == std::string::npos ? first : std::strtol(range.c_str() + dash + 1, nullptr, 10);
  std::vector<long> seqs;
  for (long seq = first; seq <= last; ++seq) seqs.push_back(seq);
  return seqs;
}

// One row: its name, who plants (engine or stranger), the planting command,
// the configuration's own lines, the engine's run and what must come of it.
struct Attack {
  std::string name;
  bool byStranger;
  std::string plant;
  std::string config;
  std::string run;
  std::vector<std::string> expectations;  // "kind:text"
};

class AttacksTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kscdp-attacks-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    m_root = pattern;
    chmod(m_root.c_str(), 0755);  // the stranger reaches each stage
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(m_root, ignored);
  }

  // Runs one row in the stage directory `stage`.
  void runAttack(const Attack& attack, const std::string& stage);

  std::string m_root;
  Stranger m_stranger;
  testbed::MosquittoBroker m_broker;
  testbed::MqttSubscriber m_subscriber{m_broker.plainPort(), kTopic};
};

void AttacksTest::runAttack(const Attack& attack, const std::string& stage) {
  const std::string log = stage + "/engine.log";
  const std::string conf = stage + "/keepstone.conf";
  const auto fill = [&](const std::string& text) {
    return cases::filled(text, {{"{stage}", stage},
                                {"{log}", log},
                                {"{raiser}", KSCDP_ALERT_RAISER_PATH},
                                {"{plant}", "sh " + stage + "/plant.sh"},
                                {"{stranger}", m_stranger.runAs()},
                                {"{spawner}", KSCDP_SPAWNING_ENGINE_PATH " " KSCDP_LIBRARY_PATH},
                                {"{master-sim}", KSCDP_MASTER_SIM_PATH},
                                {"{doctor}", KSCDP_DOCTOR_PATH}});
  };
  // A sticky directory that every user may write, as /tmp is.
  ASSERT_EQ(std::system(("mkdir -m 755 " + stage + " && mkdir -m 1777 " + stage + "/public && cp " +
                         KSCDP_TEST_PROGRAMS_DIR "/plant.sh " + stage + "/ && chmod 644 " + stage + "/plant.sh")
                            .c_str()),
            0);
  writeFile(conf, "server = m.invalid\nhost_name = attacked\nbroker = " + m_broker.address() + "\n" +
                      fill(attack.config) + "\n");
  if (attack.plant != "-") {
    writeFile(stage + "/plant-row.sh", fill(attack.plant) + "\n");
    const std::string as = attack.byStranger ? m_stranger.runAs() + " " : "";
    ASSERT_EQ(std::system(("cd " + stage + " && " + as + "sh plant-row.sh").c_str()), 0) << fill(attack.plant);
  }
  const size_t before = m_subscriber.waitForCount(0, std::chrono::milliseconds(0)).size();
  writeFile(stage + "/run.sh", fill(attack.run) + "\n");
  const integration::ProgramRun run = integration::runProgram("cd " + stage + " && KEEPSTONE_CONF=" + conf +
                                                              " KSU_LOG_FILE=" + log + " timeout 60 sh run.sh 2>&1");
  const auto sinceRow = [before](const Messages& all) { return Messages(all.begin() + before, all.end()); };

  std::vector<long> delivered;
  for (const std::string& expectation : attack.expectations) {
    if (expectation.rfind("delivered:", 0) != 0) continue;
    for (long seq : seqRange(expectation.substr(10))) delivered.push_back(seq);
  }
  Messages received = sinceRow(m_subscriber.waitUntil(
      [&](const Messages& all) {
        const Messages mine = sinceRow(all);
        return std::all_of(delivered.begin(), delivered.end(), [&mine](long seq) { return hasSeq(mine, seq); });
      },
      kDeliveryTimeout));
  const std::string logText = integration::fileText(log);
  for (const std::string& expectation : attack.expectations) {
    const size_t colon = expectation.find(':');
    const std::string kind = expectation.substr(0, colon);
    const std::string text = fill(expectation.substr(colon + 1));
    if (kind == "delivered") {
      for (long seq : seqRange(text)) EXPECT_TRUE(hasSeq(received, seq)) << "event " << seq << " not delivered";
    } else if (kind == "withheld") {
      received = sinceRow(m_subscriber.waitUntil([](const Messages&) { return false; }, kWithheldGrace));
      for (const std::string& message : received) EXPECT_EQ(message.find(text), std::string::npos) << message;
    } else if (kind == "log") {
      EXPECT_NE(logText.find(text), std::string::npos) << "not in the log: " << text << "\n" << logText;
    } else if (kind == "output") {
      EXPECT_NE(run.output.find(text), std::string::npos) << "not in the output: " << text << "\n" << run.output;
    } else if (kind == "check") {
      EXPECT_EQ(std::system(("cd " + stage + " && " + text).c_str()), 0) << text;
    } else {
      ADD_FAILURE() << "unknown expectation " << expectation;
    }
  }
}

TEST_F(AttacksTest, NothingPlantedReachesTheBrokerOrIsWrittenThrough) {
  int row = 0;
  for (const cases::Row& c : cases::read("attacks.cases")) {
    ASSERT_GE(c.size(), 6u) << c[0];
    const Attack attack{c[0], c[1] == "stranger", c[2], c[3], c[4], cases::Row(c.begin() + 5, c.end())};
    SCOPED_TRACE(attack.name);
    if (attack.byStranger && m_stranger.empty()) {
      std::printf("skipped \"%s\": no second user can be made here\n", attack.name.c_str());
      continue;
    }
    runAttack(attack, m_root + "/row" + std::to_string(++row));
  }
}

}  // namespace
