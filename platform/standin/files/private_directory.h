// The directory that holds files private to the engine (the alert outbox):
// made 0700 whatever the umask, refused when another user could put files in
// it or replace what is there, and kept open once checked, so that every
// file in it is reached through the directory that was checked, never
// through a path that another user may have pointed elsewhere since.
#ifndef KSCDP_PLATFORM_STANDIN_FILES_PRIVATE_DIRECTORY_H_
#define KSCDP_PLATFORM_STANDIN_FILES_PRIVATE_DIRECTORY_H_

#include <memory>
#include <string>

namespace standin {

class PrivateDirectory {
 public:
  // Makes the absolute `path` and any missing parent with mode 0700, opens
  // the directory itself without following a symbolic link, and checks it on
  // that descriptor: owned by this process's effective user or root, and
  // writable by neither its group nor others. Null, with one sentence in
  // `error` naming the directory and what to do, when it cannot be made or
  // is refused.
  static std::shared_ptr<const PrivateDirectory> open(const std::string& path, std::string& error);
  ~PrivateDirectory();
  PrivateDirectory(const PrivateDirectory&) = delete;
  PrivateDirectory& operator=(const PrivateDirectory&) = delete;

  // The directory's descriptor (close-on-exec), for openat() and its kin;
  // it lives as long as this object.
  int fd() const { return m_fd; }
  // "<path>/<name>": how a file in it is named to people. Never opened: the
  // path may lead elsewhere by now.
  std::string shownPath(const std::string& name) const { return (m_path == "/" ? "" : m_path) + "/" + name; }
  // A path that the kernel resolves through this object's descriptor,
  // whatever has become of the directory's own path since:
  // "/proc/self/fd/<fd>/<name>". For libraries that open files by path
  // and derive their companions' names from it (SQLite).
  std::string pathThroughDescriptor(const std::string& name) const;

 private:
  PrivateDirectory(std::string path, int fd) : m_path(std::move(path)), m_fd(fd) {}

  const std::string m_path;  // as it was checked
  const int m_fd;
};

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_FILES_PRIVATE_DIRECTORY_H_
