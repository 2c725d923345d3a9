#include "platform/standin/files/private_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/standin/files/private_file.h"

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

// Why the directory opened as `status` is refused; empty when it is not.
std::string directoryProblem(const struct stat& status, const std::string& directory) {
  if (status.st_uid != geteuid() && status.st_uid != 0) {
    return "its directory " + directory + " belongs to user " + std::to_string(status.st_uid) +
           ", neither this process's user nor root: refused; chown it to the engine's user";
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return "its directory " + directory + " is writable by other users (mode " + modeText(status.st_mode) +
           "): refused; make it private to the engine's user (chmod 700)";
  }
  return std::string();
}

}  // namespace

std::shared_ptr<const PrivateDirectory> PrivateDirectory::open(const std::string& path, std::string& error) {
  if (!makeMissing(path, error)) return nullptr;
  const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  struct stat status {};
  if (fd < 0 || fstat(fd, &status) != 0) {
    const int saved = errno;
    if (fd >= 0) close(fd);
    struct stat named {};
    error = lstat(path.c_str(), &named) == 0 && S_ISLNK(named.st_mode)
                ? "its directory " + path +
                      " is a symbolic link, which is never followed: refused; name the directory itself"
                : "cannot create its directory " + path + ": " + std::strerror(saved);
    return nullptr;
  }
  error = directoryProblem(status, path);
  if (!error.empty()) {
    close(fd);
    return nullptr;
  }
  return std::shared_ptr<const PrivateDirectory>(new PrivateDirectory(path, fd));
}

PrivateDirectory::~PrivateDirectory() { close(m_fd); }

std::string PrivateDirectory::pathThroughDescriptor(const std::string& name) const {
  return "/proc/self/fd/" + std::to_string(m_fd) + "/" + name;
}

}  // namespace standin
