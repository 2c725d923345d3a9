#include "platform/standin/files/private_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace standin {
namespace {

// Why the secret opened as `status` is refused; empty when it is not.
std::string secretProblem(const struct stat& status, const std::string& what, const std::string& path) {
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    return what + " " + path + " is open to other users (mode " + modeText(status.st_mode) +
           "): refused; make it readable by its owner only (chmod 600)";
  }
  if (status.st_uid != geteuid() && status.st_uid != 0) {
    return what + " " + path + " belongs to user " + std::to_string(status.st_uid) +
           ", neither this process's user nor root: refused; chown it to the engine's user";
  }
  return std::string();
}

}  // namespace

std::string modeText(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

int openRegularFileAt(int directoryFd, const std::string& name, const std::string& shownPath, int flags, mode_t mode,
                      const std::string& what, std::string& error) {
  const int fd = openat(directoryFd, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, mode);
  if (fd < 0 && errno == ENXIO) {
    // A FIFO without a reader, or a device: opened for writing, it would block.
    error = what + " " + shownPath + " is not a regular file: refused";
    return -1;
  }
  if (fd < 0) {
    const int saved = errno;
    error = "cannot open " + what + " " + shownPath + ": " +
            (saved == ELOOP ? std::string("it is a symbolic link, which is never followed") : std::strerror(saved));
    return -1;
  }
  struct stat status {};
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    error = what + " " + shownPath + " is not a regular file: refused";
    close(fd);
    return -1;
  }
  return fd;
}

std::string notOwnFileProblem(const struct stat& status, const std::string& what, const std::string& shownPath) {
  if (status.st_uid != geteuid()) {
    return what + " " + shownPath + " belongs to user " + std::to_string(status.st_uid) +
           ", not to this process's user " + std::to_string(geteuid()) +
           ": refused; remove it, or chown it to the engine's user";
  }
  if (status.st_nlink > 1) {
    return what + " " + shownPath + " has " + std::to_string(status.st_nlink) +
           " links: refused; it must be a file of its own: remove it or its other names";
  }
  return std::string();
}

int openOwnFileAt(int directoryFd, const std::string& name, const std::string& shownPath, int flags, mode_t mode,
                  const std::string& what, std::string& error) {
  const int fd = openRegularFileAt(directoryFd, name, shownPath, flags, mode, what, error);
  if (fd < 0) return -1;
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    error = "cannot open " + what + " " + shownPath + ": " + std::strerror(errno);
  } else {
    error = notOwnFileProblem(status, what, shownPath);
  }
  if (error.empty()) return fd;
  close(fd);
  return -1;
}

bool readCheckedFile(const std::string& path, const std::string& what, size_t maxBytes, bool secret, std::string& text,
                     std::string& error) {
  const int fd = openRegularFile(path, O_RDONLY, 0, what, error);
  if (fd < 0) return false;
  struct stat status {};
  bool usable = fstat(fd, &status) == 0;
  if (usable && secret) {
    error = secretProblem(status, what, path);
    usable = error.empty();
  }
  if (usable && static_cast<unsigned long long>(status.st_size) > maxBytes) {
    error = what + " " + path + " is larger than " + std::to_string(maxBytes / 1024) + " KiB: refused";
    usable = false;
  }
  std::string read;
  char buffer[4096];
  ssize_t got = 0;
  while (usable && (got = ::read(fd, buffer, sizeof buffer)) != 0) {
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 || read.size() + static_cast<size_t>(got) > maxBytes) {
      error = got < 0 ? "cannot read " + what + " " + path + ": " + std::strerror(errno)
                      : what + " " + path + " is larger than " + std::to_string(maxBytes / 1024) + " KiB: refused";
      usable = false;
      break;
    }
    read.append(buffer, static_cast<size_t>(got));
  }
  close(fd);
  if (usable) text.swap(read);
  return usable;
}

}  // namespace standin
