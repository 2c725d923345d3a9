// kscdp-doctor as an operator runs it: the built program, a real
// configuration file, the master simulator on loopback and a mosquitto
// broker. In every case the doctor must name the broken link, end in time,
// and start no backup.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "case_table.h"
#include "master_sim/MasterSimulator.h"
#include "mosquitto_broker.h"
#include "program_run.h"
#include "standin_environment.h"

namespace {

// The checks in the order the doctor reports them.
const char kCheckIds[] =
    "config master-name rest daemon broker log outbox certificate broker-certificate plaintext metrics";

const char kAllWell[] =
    "server = 127.0.0.1\nhost_name = cdp-host\nrest_url = {master}\nksqd_url = {master}\nbroker = {broker}\n";

using DoctorRun = integration::ProgramRun;

// A master simulator, one of another release (another jobs media type), a
// broker, and a loopback port where nothing listens. The doctor finds the
// configuration and log files (standin_environment.h) through the
// environment it inherits.
class DoctorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_master.start());
    ASSERT_TRUE(m_otherReleaseMaster.start());
  }

  // "{master}", "{other-release}", "{down}", "{down-port}" and "{broker}" in
  // `text` replaced by URLs and addresses of the test's own.
  std::string fill(const std::string& text) const {
    return cases::filled(text, {{"{master}", m_master.url()},
                                {"{other-release}", m_otherReleaseMaster.url()},
                                {"{down}", "http://127.0.0.1:" + std::to_string(m_downPort)},
                                {"{down-port}", std::to_string(m_downPort)},
                                {"{broker}", m_broker.address()}});
  }

  // The configuration file's text, filled.
  void writeConfig(const std::string& text) {
    integration::writeConfig(fill(text) + "outbox = " + integration::scratchPath("outbox.db") + "\n");
  }

  static DoctorRun runDoctor(const std::string& arguments) {
    return integration::runProgram(KSCDP_DOCTOR_PATH " " + std::string(arguments));
  }

  // Checks a --json run: every check in order with the `statuses`, an action
  // for every warning and failure, the exit status, and the failures' and
  // warnings' details and actions, in order, holding the parts of `problems`
  // between " | " ("-": anything).
  static void expectReport(const DoctorRun& run, const std::string& expectedStatuses, const std::string& problems) {
    EXPECT_LT(run.seconds, 10.0);
    const std::unique_ptr<json_t, void (*)(json_t*)> document(json_loads(run.output.c_str(), 0, nullptr), json_decref);
    ASSERT_NE(document, nullptr) << run.output;
    json_t* checks = json_object_get(document.get(), "checks");
    std::string ids, statuses;
    std::vector<std::string> found;
    for (size_t i = 0; i < json_array_size(checks); ++i) {
      json_t* check = json_array_get(checks, i);
      const std::string status = json_string_value(json_object_get(check, "status"));
      ids += (i == 0 ? "" : " ") + std::string(json_string_value(json_object_get(check, "id")));
      statuses += (i == 0 ? "" : " ") + status;
      // Every warning and failure says what to do.
      EXPECT_EQ(json_object_get(check, "action") != nullptr, status == "failed" || status == "warning") << run.output;
      if (status == "failed" || status == "warning") {
        found.push_back(std::string(json_string_value(json_object_get(check, "detail"))) + " " +
                        json_string_value(json_object_get(check, "action")));
      }
    }
    EXPECT_EQ(ids, kCheckIds);
    EXPECT_EQ(statuses, expectedStatuses) << run.output;
    const bool failed = statuses.find("failed") != std::string::npos;
    EXPECT_EQ(run.exitStatus, failed ? 1 : 0);
    EXPECT_EQ(json_is_true(json_object_get(document.get(), "ok")), !failed);
    if (problems == "-") return;
    size_t index = 0;
    for (size_t start = 0; start <= problems.size(); ++index) {
      const size_t end = std::min(problems.find(" | ", start), problems.size());
      const std::string part = problems.substr(start, end - start);
      start = end + 3;
      ASSERT_LT(index, found.size()) << "no problem left for: " << part;
      EXPECT_NE(found[index].find(part), std::string::npos) << found[index];
    }
  }

  master_sim::MasterSimulator m_master;
  master_sim::MasterSimulator m_otherReleaseMaster{[] {
    master_sim::MasterSimulatorOptions otherRelease;
    otherRelease.jobsMediaType = "application/vnd.keepstone+json;version=7.0";
    return otherRelease;
  }()};
  testbed::MosquittoBroker m_broker;
  const int m_downPort = testbed::freeLoopbackPort();
};

TEST_F(DoctorTest, NamesTheBrokenLinkAndStartsNoBackup) {
  for (const cases::Row& test : cases::read("doctor_configs.cases")) {
    SCOPED_TRACE(test[0]);
    if (test[0] != "-") {
      writeConfig(test[0]);
    } else {
      integration::removeConfig();
    }
    expectReport(runDoctor("--json"), test[1], fill(test[2]));
  }
  for (const master_sim::RecordedRequest& request : m_master.requests()) EXPECT_EQ(request.method, "GET");
}

// The check at `index` of a --json run's report: its status, its detail and
// its numbers by name.
struct Check {
  std::string status;
  std::string detail;
  std::map<std::string, json_int_t> numbers;
  std::map<std::string, bool> findings;
};
Check checkOf(const DoctorRun& run, size_t index) {
  const std::unique_ptr<json_t, void (*)(json_t*)> document(json_loads(run.output.c_str(), 0, nullptr), json_decref);
  const char* name = nullptr;
  json_t* value = nullptr;
  Check check;
  json_object_foreach(json_array_get(json_object_get(document.get(), "checks"), index), name, value) {
    if (json_is_integer(value)) check.numbers[name] = json_integer_value(value);
    if (json_is_boolean(value)) check.findings[name] = json_is_true(value);
    if (json_is_string(value) && std::string(name) == "status") check.status = json_string_value(value);
    if (json_is_string(value) && std::string(name) == "detail") check.detail = json_string_value(value);
  }
  return check;
}

// The files beside `path` whose names begin with its own, with their sizes.
std::string filesBeside(const std::string& path) {
  const std::filesystem::path file(path);
  std::set<std::string> listing;
  for (const auto& entry : std::filesystem::directory_iterator(file.parent_path())) {
    const std::string name = entry.path().filename();
    if (name.rfind(file.filename(), 0) == 0) listing.insert(name + " " + std::to_string(entry.file_size()));
  }
  std::string text;
  for (const std::string& line : listing) text += line + "\n";
  return text;
}

// Five alerts that a killed engine left waiting: counted, with the oldest's
// age and the bytes on disk, in the text and as numbers, and the file left
// as it was, with no file made beside it.
TEST_F(DoctorTest, TellsWhatWaitsInTheOutbox) {
  writeConfig(kAllWell);
  const std::string outbox = integration::scratchPath("outbox.db");
  std::remove(outbox.c_str());
  const std::string fill =
      "sqlite3 " + outbox +
      " 'PRAGMA journal_mode = WAL; CREATE TABLE events (id INTEGER PRIMARY KEY, payload BLOB NOT NULL, raised "
      "INTEGER NOT NULL DEFAULT 0); PRAGMA user_version = 1; INSERT INTO events (payload, raised) VALUES "
      "(1, unixepoch() - 600), (2, unixepoch() - 60), (3, 0), (4, unixepoch()), (5, unixepoch());' >/dev/null";
  ASSERT_EQ(std::system(fill.c_str()), 0);
  const std::string before = integration::fileText(outbox);
  const std::string files = filesBeside(outbox);

  const DoctorRun text = runDoctor("");
  EXPECT_NE(text.output.find("5 alerts wait, the oldest raised 60"), std::string::npos) << text.output;
  Check check = checkOf(runDoctor("--json"), 6);
  EXPECT_EQ(check.numbers["waiting"], 5);
  EXPECT_GE(check.numbers["oldestAgeSeconds"], 600);
  EXPECT_GE(check.numbers["bytesOnDisk"], static_cast<json_int_t>(before.size()));
  EXPECT_EQ(integration::fileText(outbox), before);
  EXPECT_EQ(filesBeside(outbox), files);
}

// filesBeside(path) once it stayed the same for half a second (an engine
// copies its WAL into the database on its own thread after an append), or
// after 5 s.
std::string settledFilesBeside(const std::string& path) {
  std::string listing = filesBeside(path);
  for (int tries = 0; tries < 10; ++tries) {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const std::string now = filesBeside(path);
    if (now == listing) break;
    listing = now;
  }
  return listing;
}

// The doctor only looks, also beside an engine that holds the outbox open
// (WAL mode, its index in "-shm"): twice it reports the same figures and
// leaves the same files.
TEST_F(DoctorTest, LooksAtAnOutboxInUseWithoutChangingAFile) {
  writeConfig("server = 127.0.0.1\nhost_name = cdp-host\nbroker = 127.0.0.1:{down-port}\n");
  const std::string outbox = integration::scratchPath("outbox.db");
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) std::remove((outbox + suffix).c_str());
  // Five alerts wait for a broker that is away.
  FILE* raiser = popen(KSCDP_ALERT_RAISER_PATH " 1 5", "r");
  ASSERT_NE(raiser, nullptr);
  int pid = 0;
  ASSERT_EQ(std::fscanf(raiser, "accepted 5 pid %d", &pid), 1);
  const std::string files = settledFilesBeside(outbox);
  EXPECT_NE(files.find("outbox.db-shm"), std::string::npos) << files;

  const DoctorRun first = runDoctor("--json");
  EXPECT_EQ(filesBeside(outbox), files);
  const DoctorRun second = runDoctor("--json");
  EXPECT_EQ(filesBeside(outbox), files);
  for (const char* figure : {"waiting", "bytesOnDisk"})
    EXPECT_EQ(checkOf(first, 6).numbers[figure], checkOf(second, 6).numbers[figure]) << figure;
  EXPECT_EQ(checkOf(first, 6).numbers["waiting"], 5) << first.output;
  kill(pid, SIGKILL);
  pclose(raiser);
}

// On a fresh install the outbox's directory does not exist yet: the engine
// makes it with its first alert when it can, and only one it cannot make (a
// file in the way) is a warning. The doctor makes neither.
TEST_F(DoctorTest, AnOutboxDirectoryTheEngineCanMakeIsOk) {
  std::filesystem::remove_all(integration::scratchPath("fresh"));
  const std::string inTheWay = integration::scratchPath("plain");
  std::ofstream(inTheWay) << "a file in the way\n";
  const std::pair<std::string, std::string> rows[] = {
      {integration::scratchPath("fresh/install/outbox.db"), "ok will be created, with its directory"},
      {inTheWay + "/kscdp/outbox.db", "warning Not a directory"}};
  for (const auto& [outbox, expected] : rows) {
    SCOPED_TRACE(outbox);
    integration::writeConfig(fill(std::string(kAllWell) + "outbox = " + outbox + "\n"));
    const Check check = checkOf(runDoctor("--json"), 6);
    EXPECT_EQ(check.status, expected.substr(0, expected.find(' ')));
    EXPECT_NE(check.detail.find(expected.substr(expected.find(' ') + 1)), std::string::npos) << check.detail;
  }
  EXPECT_FALSE(std::filesystem::exists(integration::scratchPath("fresh")));
}

// The metrics file's age against three intervals of 10 s: stale is a
// warning only while an engine holds the outbox (its lock file's flock,
// taken here as an engine takes it).
TEST_F(DoctorTest, TellsTheMetricsFilesAgeAndWhetherItIsFresh) {
  const std::string metrics = integration::scratchPath("doctor-metrics.prom");
  const std::string outbox = integration::scratchPath("outbox.db");
  writeConfig(std::string(kAllWell) + "metrics_file = " + metrics + "\nmetrics_interval = 10\n");
  const struct {
    int ageSeconds;  // -1: no file
    bool engineRuns;
    const char* expected;  // status, then a part of the detail
  } rows[] = {{-1, false, "ok No such file or directory; the engine writes it"},
              {-1, true, "warning No such file or directory while an engine holds the outbox"},
              {5, true, "ok s ago (every 10 s): fresh"},
              {40, true, "warning older than three intervals while an engine holds the outbox"},
              {40, false, "ok no engine runs now"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.expected);
    std::remove(metrics.c_str());
    if (row.ageSeconds >= 0) {
      std::ofstream(metrics) << "kscdp_alerts_waiting 0\n";
      std::filesystem::last_write_time(
          metrics, std::filesystem::file_time_type::clock::now() - std::chrono::seconds(row.ageSeconds));
    }
    const int lock = open((outbox + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(lock, 0);
    if (row.engineRuns) {
      ASSERT_EQ(flock(lock, LOCK_EX), 0);
    }
    const DoctorRun run = runDoctor("--json");
    close(lock);
    Check check = checkOf(run, 10);
    const std::string expected = row.expected;
    EXPECT_EQ(check.status, expected.substr(0, expected.find(' ')));
    EXPECT_NE(check.detail.find(metrics), std::string::npos) << check.detail;
    EXPECT_NE(check.detail.find(expected.substr(expected.find(' ') + 1)), std::string::npos) << check.detail;
    if (row.ageSeconds >= 0) {
      EXPECT_NEAR(check.numbers["ageSeconds"], row.ageSeconds, 2);
      ASSERT_EQ(check.findings.count("fresh"), 1u) << run.output;
      EXPECT_EQ(check.findings["fresh"], row.ageSeconds <= 30);
    }
  }
}

TEST_F(DoctorTest, JudgesTheHostsCertificatesAndPresentsThemToAMasterThatAuthenticatesItsHosts) {
  const std::string dir = integration::scratchPath("doctor-tls");
  const std::string make = "bash " KSCDP_SCRIPTS_DIR "/make-certs.sh " + dir + " && cp " + dir + "/client.key " + dir +
                           "/open.key && chmod 644 " + dir + "/open.key";
  ASSERT_EQ(std::system(("(" + make + ") >/dev/null 2>&1").c_str()), 0) << make;
  master_sim::MasterSimulatorOptions options;
  options.tlsCertFile = dir + "/master.pem";
  options.tlsKeyFile = dir + "/master.key";
  options.clientCaFile = dir + "/ca.pem";
  master_sim::MasterSimulator master(options);
  ASSERT_TRUE(master.start());
  options.tlsCertFile = dir + "/stranger.pem";
  options.tlsKeyFile = dir + "/stranger.key";
  master_sim::MasterSimulator strangerMaster(options);
  ASSERT_TRUE(strangerMaster.start());
  testbed::MosquittoBroker::Options brokerOptions;
  brokerOptions.certFile = dir + "/broker.pem";
  brokerOptions.keyFile = dir + "/broker.key";
  brokerOptions.clientCaFile = dir + "/ca.pem";
  testbed::MosquittoBroker tlsBroker(brokerOptions);
  for (const cases::Row& test : cases::read("doctor_tls.cases")) {
    const auto fillTls = [&](const std::string& text) {
      return cases::filled(text, {{"{dir}", dir},
                                  {"{tls}", master.url()},
                                  {"{stranger-tls}", strangerMaster.url()},
                                  {"{tls-broker}", tlsBroker.address()}});
    };
    SCOPED_TRACE(test[0]);
    writeConfig("server = 127.0.0.1\nhost_name = cdp-host\nrest_url = " + master.url() + "\nksqd_url = " +
                master.url() + "\nbroker = {broker}\nca_file = " + dir + "/ca.pem\n" + fillTls(test[0]));
    expectReport(runDoctor("--json"), test[1], fillTls(test[2]));
  }
  for (const master_sim::RecordedRequest& request : master.requests()) EXPECT_EQ(request.method, "GET");
}

TEST_F(DoctorTest, UnknownArgumentIsBadUsage) { EXPECT_EQ(runDoctor("--no-such-option 2>/dev/null").exitStatus, 2); }

}  // namespace
