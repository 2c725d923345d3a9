// The files a process of its own writes through the stand-ins, under umask
// 000 and with files planted at their paths: private, and never followed.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "case_table.h"
#include "mosquitto_broker.h"
#include "standin_environment.h"

namespace {

// The permission bits of `path`, or -1 when it is not there.
int modeOf(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_mode & 07777) : -1;
}

// Raises two alerts in a process of its own under umask 000, with its log at
// `log`, and waits until they are delivered; its exit status.
int raiseUnderOpenUmask(const std::string& log, const std::string& errors) {
  return std::system(("umask 000 && KSU_LOG_FILE=" + log +
                      " timeout 30 " KSCDP_ALERT_RAISER_PATH " 1 2 1000000000 >/dev/null 2>" + errors)
                         .c_str());
}

TEST(PrivateFiles, OutboxAndLogArePrivateUnderUmask000) {
  testbed::MosquittoBroker broker;
  const std::string dir = integration::scratchPath("private");
  integration::writeConfig("server = m.invalid\nbroker = " + broker.address() + "\noutbox = " + dir +
                           "/box/outbox.db\n");
  ASSERT_EQ(raiseUnderOpenUmask(dir + "-log", dir + "-errors"), 0) << integration::fileText(dir + "-errors");
  EXPECT_EQ(modeOf(dir), 0700);
  EXPECT_EQ(modeOf(dir + "/box"), 0700);
  EXPECT_EQ(modeOf(dir + "/box/outbox.db"), 0600);
  EXPECT_EQ(modeOf(dir + "/box/outbox.db.lock"), 0600);
  for (const char* companion : {"-wal", "-shm"}) {
    const int mode = modeOf(dir + "/box/outbox.db" + companion);
    EXPECT_TRUE(mode == -1 || mode == 0600) << companion << " " << mode;
  }
  EXPECT_EQ(modeOf(dir + "-log"), 0640);
}

TEST(PrivateFiles, APlantedLogIsNeitherFollowedNorWaitedOn) {
  testbed::MosquittoBroker broker;
  const std::string dir = integration::scratchPath("planted");
  ASSERT_EQ(std::system(("mkdir -p " + dir).c_str()), 0);
  integration::writeConfig("server = m.invalid\nbroker = " + broker.address() + "\noutbox = none\n");
  int row = 0;
  for (const cases::Row& c : cases::read("planted_logs.cases")) {
    const std::string log = dir + "/log" + std::to_string(++row);
    const auto fill = [&](const std::string& text) { return cases::filled(text, {{"{log}", log}, {"{dir}", dir}}); };
    SCOPED_TRACE(fill(c[0]));
    ASSERT_EQ(std::system(fill(c[0]).c_str()), 0);
    EXPECT_EQ(raiseUnderOpenUmask(log, dir + "/errors"), 0);
    EXPECT_NE(integration::fileText(dir + "/errors").find(fill(c[1])), std::string::npos)
        << integration::fileText(dir + "/errors");
    EXPECT_EQ(modeOf(dir + "/elsewhere"), -1);
  }
}

}  // namespace
