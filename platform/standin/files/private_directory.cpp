#include "platform/standin/files/private_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace standin {
namespace {

const mode_t kPrivateMode = 0700;

// Makes every missing directory of `directory`, parents first.
bool makeMissing(const std::string& directory, std::string& error) {
  for (size_t end = directory.find('/', 1);; end = directory.find('/', end + 1)) {
    const std::string part = directory.substr(0, end);
    if (!part.empty() && mkdir(part.c_str(), kPrivateMode) != 0 && errno != EEXIST) {
      error = "cannot create its directory " + part + ": " + std::strerror(errno);
      return false;
    }
    if (end == std::string::npos) return true;
  }
}

}  // namespace

bool usePrivateDirectory(const std::string& directory, std::string& error) {
  if (!makeMissing(directory, error)) return false;
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  struct stat status {};
  const bool seen = fd >= 0 && fstat(fd, &status) == 0;
  const int saved = errno;
  if (fd >= 0) close(fd);
  if (!seen) {
    error = "cannot create its directory " + directory + ": " + std::strerror(saved);
    return false;
  }
  if (status.st_uid != geteuid() && status.st_uid != 0) {
    error = "its directory " + directory + " belongs to user " + std::to_string(status.st_uid) +
            ", neither this process's user nor root: refused; chown it to the engine's user";
    return false;
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
    error = "its directory " + directory + " is writable by other users (mode " + mode +
            "): refused; make it private to the engine's user (chmod 700)";
    return false;
  }
  return true;
}

}  // namespace standin
