// kscdp_spawning_engine LIBRARY CHILDREN: while one thread raises alerts and
// another evicts and polls, starts itself CHILDREN times, by fork and exec and
// by posix_spawn, as "--list-descriptors"; each child fails, naming them, when
// it holds more than the standard three. Exit status 0 when none did.
#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "engine_library.h"

extern char** environ;

namespace {

const char kListArgument[] = "--list-descriptors";
const int kVms = 2;
const int kDone = 2;  // evict_state of a VM whose backup is done

// The descriptors open in this process, but the one that lists them.
std::vector<int> openDescriptors() {
  std::vector<int> open;
  DIR* listing = opendir("/proc/self/fd");
  if (listing == nullptr) return open;
  while (const dirent* entry = readdir(listing)) {
    if (entry->d_name[0] == '.' || std::atoi(entry->d_name) == dirfd(listing)) continue;
    open.push_back(std::atoi(entry->d_name));
  }
  closedir(listing);
  return open;
}

int listDescriptors() {
  int extra = 0;
  for (const int fd : openDescriptors()) {
    if (fd <= STDERR_FILENO) continue;
    char target[PATH_MAX] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    if (readlink(link.c_str(), target, sizeof target - 1) < 0) std::strcpy(target, "?");
    std::fprintf(stderr, "inherited descriptor %d: %s\n", fd, target);
    ++extra;
  }
  return extra == 0 ? 0 : 1;
}

// What this engine's own starter left open is not the library's business.
void closeOnExecInherited() {
  for (const int fd : openDescriptors()) {
    if (fd > STDERR_FILENO) fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
  }
}

// Starts this program as a child that lists its descriptors; its exit status,
// or -1 when it could not be started or did not exit.
int startChild(const char* self, bool spawn) {
  char* const argv[] = {const_cast<char*>(self), const_cast<char*>(kListArgument), nullptr};
  pid_t child = -1;
  if (spawn) {
    if (posix_spawn(&child, self, nullptr, nullptr, argv, environ) != 0) return -1;
  } else {
    child = fork();
    if (child < 0) return -1;
    if (child == 0) {
      execv(self, argv);
      _exit(127);
    }
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// Evicts VMs and polls them until done, round after round, until `stop`.
void evictAndPoll(const EngineLibrary& library, const std::atomic<bool>& stop, std::atomic<int>& doneRounds) {
  for (int round = 0; !stop; ++round) {
    evict_vm_info vms[kVms] = {};
    evict_vm_list* evictList = nullptr;
    vm_node_list* requested = nullptr;
    if (library.initialize_evlist(&evictList, kVms) != 0) return;
    for (int i = 0; i < kVms; ++i) {
      std::snprintf(vms[i].vm_id, sizeof vms[i].vm_id, "%016x%016x", round, i);
      std::snprintf(vms[i].policy_name, sizeof vms[i].policy_name, "policy-spawn");
      vms[i].vm_size = static_cast<uint64_t>(i + 1);
      library.insert_vm_into_evlist(evictList, &vms[i]);
    }
    library.call_evict_data(kVms, evictList, &requested);
    const auto allDone = [&vms] {
      return std::all_of(std::begin(vms), std::end(vms),
                         [](const evict_vm_info& vm) { return vm.evict_state == kDone; });
    };
    while (!stop && !allDone()) {
      library.call_check_eviction_progress(kVms, &requested);
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (allDone()) ++doneRounds;
    library.delete_from_vm_list(&requested);
    library.delete_evlist(evictList);
  }
}

void raiseAlerts(const EngineLibrary& library, const std::atomic<bool>& stop, std::atomic<int>& raised) {
  for (int i = 0; !stop; ++i) {
    char vm[33];
    std::snprintf(vm, sizeof vm, "%032d", i);
    if (library.raise_backup_alert(vm, 501, "") == 0) ++raised;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], kListArgument) == 0) return listDescriptors();
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s LIBRARY CHILDREN | %s\n", argv[0], kListArgument);
    return 2;
  }
  closeOnExecInherited();
  EngineLibrary library;
  std::string error;
  if (!library.load(argv[1], error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  std::atomic<bool> stop{false};
  std::atomic<int> raised{0};
  std::atomic<int> doneRounds{0};
  std::thread alerts(raiseAlerts, std::cref(library), std::cref(stop), std::ref(raised));
  std::thread evictions(evictAndPoll, std::cref(library), std::cref(stop), std::ref(doneRounds));

  const int children = std::atoi(argv[2]);
  int clean = 0;
  for (int i = 0; i < children; ++i) {
    const bool spawn = i % 2 == 1;
    const int status = startChild(argv[0], spawn);
    if (status == 0) ++clean;
    if (status != 0)
      std::fprintf(stderr, "child %d (%s): exit status %d\n", i, spawn ? "posix_spawn" : "fork and exec", status);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  // The last child starts once an eviction has finished, so that every kind
  // of connection has been open at least once.
  for (int wait = 0; wait < 300 && doneRounds == 0; ++wait) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  if (startChild(argv[0], true) == 0 && startChild(argv[0], false) == 0) clean += 2;
  stop = true;
  alerts.join();
  evictions.join();
  library.stop_alert_thread();
  library.unload();
  std::printf("%d of %d children held only their standard descriptors; %d alerts raised, %d evictions done\n", clean,
              children + 2, raised.load(), doneRounds.load());
  return clean == children + 2 && raised > 0 && doneRounds > 0 ? 0 : 1;
}
