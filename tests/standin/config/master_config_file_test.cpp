// The stand-in master configuration, through its real file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "case_table.h"
#include "platform/ks_master_config.h"
#include "standin_environment.h"

namespace {

TEST(MasterConfigFile, EveryReadLoadsWhatTheFileSaysNow) {
  for (const cases::Row& c : cases::read("master_configs.cases")) {
    SCOPED_TRACE(c[0]);
    if (c[0] != "-") {
      integration::writeConfig(c[0]);
    } else {
      integration::removeConfig();
    }
    EXPECT_EQ(KS_read_master_config(), std::stoi(c[1]));
    const ks_master_config* config = get_master_config_ptr();
    std::string servers;
    int listed = 0;
    for (; config->server_list != nullptr && config->server_list[listed] != nullptr; ++listed) {
      servers += (listed == 0 ? "" : ",") + std::string(config->server_list[listed]);
    }
    EXPECT_EQ(servers, c[2]);
    EXPECT_EQ(config->server_list == nullptr, c[1] != "0");
    EXPECT_EQ(config->server_count, listed);
    EXPECT_STREQ(config->host_name != nullptr ? config->host_name : "<none>", c[3].c_str());
  }
}

// An edit is seen by the next read even when it keeps the file's size and
// moves its modification time by a nanosecond only.
TEST(MasterConfigFile, AnEditOfTheSameSizeInTheSameSecondIsSeen) {
  const std::string path = std::getenv("KEEPSTONE_CONF");
  integration::writeConfig("server = before\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // its times are then to be trusted
  ASSERT_EQ(KS_read_master_config(), 0);
  struct stat read {};
  ASSERT_EQ(stat(path.c_str(), &read), 0);
  std::ofstream(path) << "server = after!\n";  // in place: the same inode
  timespec times[2] = {read.st_atim, read.st_mtim};
  times[1].tv_nsec = read.st_mtim.tv_nsec > 0 ? read.st_mtim.tv_nsec - 1 : 1;
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  ASSERT_EQ(KS_read_master_config(), 0);
  EXPECT_STREQ(get_master_config_ptr()->server_list[0], "after!");
}

}  // namespace
