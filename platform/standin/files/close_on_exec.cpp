#include "platform/standin/files/close_on_exec.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <set>

#include "port/mutex.h"
#include "port/no_destructor.h"

namespace standin {
namespace {

// Held by withForkHeldOff() and by a forking thread from prepare to parent
// or child. Never destroyed: a fork handler may run at exit.
port::NoDestructor<port::Mutex> g_forkHeldOff;

// The open sockets of this process without close-on-exec.
std::set<int> inheritableSockets() {
  std::set<int> sockets;
  DIR* listing = opendir("/proc/self/fd");
  if (listing == nullptr) return sockets;
  while (const dirent* entry = readdir(listing)) {
    char* end = nullptr;
    const long fd = std::strtol(entry->d_name, &end, 10);
    if (end == entry->d_name || *end != '\0' || fd == dirfd(listing)) continue;
    struct stat status {};
    const int flags = fcntl(static_cast<int>(fd), F_GETFD);
    if (flags >= 0 && (flags & FD_CLOEXEC) == 0 && fstat(static_cast<int>(fd), &status) == 0 &&
        S_ISSOCK(status.st_mode)) {
      sockets.insert(static_cast<int>(fd));
    }
  }
  closedir(listing);
  return sockets;
}

void holdOff() NO_THREAD_SAFETY_ANALYSIS { g_forkHeldOff->lock(); }
void release() NO_THREAD_SAFETY_ANALYSIS { g_forkHeldOff->unlock(); }

}  // namespace

const port::ForkHooks kCloseOnExecForkHooks = {&holdOff, &release, &release};

void withForkHeldOff(const std::function<void()>& call) {
  port::MutexLock lock(*g_forkHeldOff);
  call();
}

bool markSocketsOpenedBy(size_t sockets, const std::function<void()>& call) {
  port::MutexLock lock(*g_forkHeldOff);
  const std::set<int> before = inheritableSockets();
  call();
  std::set<int> opened;
  for (const int fd : inheritableSockets()) {
    if (before.count(fd) == 0) opened.insert(fd);
  }
  if (opened.size() != sockets) return false;
  for (const int fd : opened) setCloseOnExec(fd);
  return true;
}

bool setCloseOnExec(int fd) {
  const int flags = fcntl(fd, F_GETFD);
  return flags >= 0 && fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == 0;
}

}  // namespace standin
