// The metrics file's rewrite: a reader never sees a part of a version, and
// no temporary file is left beside it.
#include "platform/standin/metrics/writer.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>

namespace {

class MetricsFileRewrite : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kscdp-metrics-XXXXXX").string();
    ASSERT_NE(mkdtemp(&pattern[0]), nullptr);
    m_directory = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(m_directory); }

  long entries() const {
    return std::distance(std::filesystem::directory_iterator(m_directory), std::filesystem::directory_iterator());
  }

  std::string m_directory;
};

// Version n is 64 KiB of one letter and an end line: anything else read is a
// part of a file, or two mixed.
std::string version(int n) { return std::string(64 * 1024, static_cast<char>('a' + n % 26)) + "\n# end\n"; }

bool wholeVersion(const std::string& text) {
  return text.size() == version(0).size() && text.find_first_not_of(text[0]) == 64 * 1024 &&
         text.compare(64 * 1024, std::string::npos, "\n# end\n") == 0;
}

TEST_F(MetricsFileRewrite, AReaderSeesOnlyWholeVersionsAndNoTemporaryFileStays) {
  const std::string path = m_directory + "/kscdp.prom";
  std::string error;
  ASSERT_TRUE(standin::replaceFileAtomically(path, version(0), error)) << error;
  std::atomic<bool> writing{true};
  std::thread writer([&] {
    for (int n = 1; n <= 300; ++n) EXPECT_TRUE(standin::replaceFileAtomically(path, version(n), error));
    writing = false;
  });
  int reads = 0;
  while (writing) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    ASSERT_TRUE(wholeVersion(text.str())) << "read " << text.str().size() << " bytes";
    ++reads;
  }
  writer.join();
  EXPECT_GT(reads, 10);
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_EQ(entries(), 1);
}

TEST_F(MetricsFileRewrite, AFailedRenameLeavesNoTemporaryFile) {
  const std::string path = m_directory + "/a-directory";
  std::filesystem::create_directory(path);
  std::string error;
  EXPECT_FALSE(standin::replaceFileAtomically(path, version(0), error));
  EXPECT_EQ(error, "Is a directory");
  EXPECT_EQ(entries(), 1);
}

}  // namespace
