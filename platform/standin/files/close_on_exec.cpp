#include "platform/standin/files/close_on_exec.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "port/mutex.h"
#include "port/no_destructor.h"

namespace standin {
namespace {

// Held by withForkHeldOff() and by a forking thread from prepare to parent
// or child. Never destroyed: a fork handler may run at exit.
port::NoDestructor<port::Mutex> g_forkHeldOff;

// Whether the descriptor `fd` is open without close-on-exec, as
// /proc/self/fdinfo tells: the descriptor itself is not touched, as it may be
// another thread's, closed and reused meanwhile.
bool isInheritable(long fd) {
  const std::string path = "/proc/self/fdinfo/" + std::to_string(fd);
  const int info = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (info < 0) return false;
  char text[256] = {};
  const ssize_t got = read(info, text, sizeof text - 1);
  close(info);
  const char* flags = got > 0 ? std::strstr(text, "flags:") : nullptr;
  return flags != nullptr && (std::strtol(flags + 6, nullptr, 8) & O_CLOEXEC) == 0;
}

// The open sockets of this process without close-on-exec, told apart by what
// /proc/self/fd names them.
std::set<int> inheritableSockets() {
  std::set<int> sockets;
  DIR* listing = opendir("/proc/self/fd");
  if (listing == nullptr) return sockets;
  while (const dirent* entry = readdir(listing)) {
    char* end = nullptr;
    const long fd = std::strtol(entry->d_name, &end, 10);
    if (end == entry->d_name || *end != '\0' || fd == dirfd(listing)) continue;
    static const char kSocket[] = "socket:";
    char target[sizeof kSocket] = {};
    if (readlinkat(dirfd(listing), entry->d_name, target, sizeof target - 1) == sizeof target - 1 &&
        std::strcmp(target, kSocket) == 0 && isInheritable(fd)) {
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
