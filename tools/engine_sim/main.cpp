// kscdp-engine-sim: drives libkscdp.so the way the CDP engine does. Builds an
// evict list, evicts it, polls until every VM is done or time runs out,
// raises a few sample alerts (or, with --alerts-per-poll, alerts of its own
// while it polls), stops the alert thread and prints a summary.
// Exit status: 0 when every VM was reported done, 1 when not, 2 for bad usage
// or a library that cannot be used.
//
// With --record 1 (for fault runs) it evicts again, before each poll, what a
// failed pass left on the evict list, and prints lines a checker reads:
//   record: resources RSS_KIB FDS     after the first poll (the library has
//                                     its connections then), and once alerts stopped
//   record: alerts accepted up to N   after each batch of its own alerts
//   record: alert N refused           for one the library refused
//   record: longest call SECONDS      at the end, of evictions and polls
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "alert_times.h"
#include "engine_library.h"
#include "fleet.h"

namespace {

struct Options {
  std::string library;
  int vms = 8;
  uint64_t seed = 1;
  double pollInterval = 1.0;
  double timeout = 60.0;
  int alertsPerPoll = 0;
  std::string alertTimes;  // where to write when each own alert was raised; empty: nowhere
  uint64_t firstAlert = 0;
  bool record = false;
};

using Seconds = std::chrono::duration<double>;

const char kUsage[] =
    "usage: kscdp-engine-sim [--library PATH] [--vms N] [--seed N]\n"
    "                        [--poll-interval SECONDS] [--timeout SECONDS]\n"
    "                        [--alerts-per-poll N] [--alert-times FILE] [--first-alert N]\n"
    "                        [--record 0|1]\n";

bool parseOptions(int argc, char** argv, Options& options) {
  // By soname, as an installed engine finds it; in the build tree this
  // program's RUNPATH leads to the library built beside it.
  options.library = "libkscdp.so.1";
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--help" || name == "-h") return false;
    if (i + 1 >= argc) {
      std::fprintf(stderr, "kscdp-engine-sim: %s needs a value\n", name.c_str());
      return false;
    }
    const char* value = argv[++i];
    char* end = nullptr;
    errno = 0;
    if (name == "--library" || name == "--alert-times") {
      (name == "--library" ? options.library : options.alertTimes) = value;
      continue;
    } else if (name == "--vms") {
      options.vms = static_cast<int>(std::strtol(value, &end, 10));
    } else if (name == "--seed") {
      options.seed = std::strtoull(value, &end, 10);
    } else if (name == "--poll-interval") {
      options.pollInterval = std::strtod(value, &end);
    } else if (name == "--timeout") {
      options.timeout = std::strtod(value, &end);
    } else if (name == "--alerts-per-poll") {
      options.alertsPerPoll = static_cast<int>(std::strtol(value, &end, 10));
    } else if (name == "--first-alert") {
      options.firstAlert = std::strtoull(value, &end, 10);
    } else if (name == "--record") {
      options.record = std::strtol(value, &end, 10) != 0;
    } else {
      std::fprintf(stderr, "kscdp-engine-sim: unknown option %s\n", name.c_str());
      return false;
    }
    if (errno != 0 || end == value || *end != '\0') {
      std::fprintf(stderr, "kscdp-engine-sim: bad value for %s: %s\n", name.c_str(), value);
      return false;
    }
  }
  if (options.vms < 1 || options.pollInterval < 0 || options.timeout < 0 || options.alertsPerPoll < 0) {
    std::fprintf(stderr, "kscdp-engine-sim: --vms must be at least 1, times and counts not negative\n");
    return false;
  }
  return true;
}

int countDone(const std::vector<evict_vm_info>& fleet) {
  int done = 0;
  for (const evict_vm_info& vm : fleet) done += vm.evict_state == 2;
  return done;
}

const char* stateName(int32_t state) {
  switch (state) {
    case 1: return "REQUESTED";
    case 2: return "DONE";
    default: return "NOT REQUESTED";
  }
}

void printSummary(const std::vector<evict_vm_info>& fleet) {
  std::printf("\n%-32s  %14s  %-12s  %10s  %s\n", "VM", "SIZE (MiB)", "POLICY", "JOB ID", "STATE");
  for (const evict_vm_info& vm : fleet) {
    std::printf("%-32.32s  %14llu  %-12s  %10llu  %s\n", vm.vm_id, static_cast<unsigned long long>(vm.vm_size),
                vm.policy_name, static_cast<unsigned long long>(vm.job_id), stateName(vm.evict_state));
  }
}

// The process's resident memory in KiB and its open descriptors.
void printResources() {
  long residentKib = -1;
  if (FILE* status = std::fopen("/proc/self/status", "r")) {
    char line[256];
    while (std::fgets(line, sizeof line, status) != nullptr) std::sscanf(line, "VmRSS: %ld kB", &residentKib);
    std::fclose(status);
  }
  int descriptors = -1;  // the directory's own stream is one of them
  if (DIR* fds = opendir("/proc/self/fd")) {
    for (const dirent* entry; (entry = readdir(fds)) != nullptr;) descriptors += entry->d_name[0] != '.';
    closedir(fds);
  }
  std::printf("record: resources %ld %d\n", residentKib, descriptors);
}

// Raises --alerts-per-poll alerts 501 (full sync started), each for a VM of
// its own, never evicted: the VM id is the seed and the alert's number (from
// --first-alert), so that engines of different seeds raise alerts that
// differ. Counts them in `raised` and notes when each was raised in `times`.
void raiseOwnAlerts(const EngineLibrary& library, const Options& options, int& raised, AlertTimes& times) {
  for (int i = 0; i < options.alertsPerPoll; ++i) {
    char vmId[33];
    const unsigned long long number = options.firstAlert + static_cast<uint64_t>(raised);
    std::snprintf(vmId, sizeof vmId, "%016llx%016llx", static_cast<unsigned long long>(options.seed), number);
    times.raised(vmId);
    const int result = library.raise_backup_alert(vmId, 501, "");
    if (options.record && result != 0) std::printf("record: alert %llu refused\n", number);
    ++raised;
  }
  if (options.record && options.alertsPerPoll > 0) {
    std::printf("record: alerts accepted up to %llu\n",
                static_cast<unsigned long long>(options.firstAlert + static_cast<uint64_t>(raised) - 1));
  }
}

// call_evict_data for what is left on the evict list, printing its result;
// keeps the longest call in `longest`.
void evict(const EngineLibrary& library, evict_vm_list* evictList, vm_node_list** requested, Seconds& longest) {
  const auto start = std::chrono::steady_clock::now();
  const int result = library.call_evict_data(evictList->count, evictList, requested);
  longest = std::max<Seconds>(longest, std::chrono::steady_clock::now() - start);
  std::printf("call_evict_data: %d\n", result);
}

// Polls until every VM is done or the time limit passes, keeping one live
// progress line on a terminal (one line per change otherwise). Before each
// status call raises the alerts of --alerts-per-poll, counted in `raised`.
void pollUntilDone(const EngineLibrary& library, const Options& options, std::vector<evict_vm_info>& fleet,
                   evict_vm_list* evictList, vm_node_list** requested, int& raised, AlertTimes& times,
                   Seconds& longest) {
  const bool live = isatty(STDOUT_FILENO) != 0;
  const auto start = std::chrono::steady_clock::now();
  const int total = static_cast<int>(fleet.size());
  int shown = -1;
  for (;;) {
    raiseOwnAlerts(library, options, raised, times);
    if (options.record && evictList->count > 0) evict(library, evictList, requested, longest);
    const auto callStart = std::chrono::steady_clock::now();
    const int result = library.call_check_eviction_progress(total, requested);
    longest = std::max<Seconds>(longest, std::chrono::steady_clock::now() - callStart);
    if (options.record && shown < 0) printResources();
    const int done = countDone(fleet);
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (live) {
      std::printf("\rpolling: %d/%d VMs done, %.1fs elapsed, last result %d   ", done, total, elapsed, result);
      std::fflush(stdout);
    } else if (done != shown) {
      std::printf("polling: %d/%d VMs done, %.1fs elapsed, last result %d\n", done, total, elapsed, result);
    }
    shown = done;
    if (done == total || elapsed >= options.timeout) break;
    std::this_thread::sleep_for(std::chrono::duration<double>(options.pollInterval));
  }
  if (live) std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  // Progress is read as it happens, also from a file or a pipe.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  Options options;
  if (!parseOptions(argc, argv, options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  EngineLibrary library;
  std::string error;
  if (!library.load(options.library, error)) {
    std::fprintf(stderr, "kscdp-engine-sim: %s\n", error.c_str());
    return 2;
  }
  std::printf("library: %s (release %s)\n", options.library.c_str(), library.release + std::strlen("\n@(#) "));

  std::vector<evict_vm_info> fleet = makeFleet(options.vms, options.seed);
  evict_vm_list* evictList = nullptr;
  if (library.initialize_evlist(&evictList, options.vms) != 0) {
    std::fprintf(stderr, "kscdp-engine-sim: initialize_evlist failed\n");
    return 2;
  }
  for (evict_vm_info& vm : fleet) library.insert_vm_into_evlist(evictList, &vm);

  vm_node_list* requested = nullptr;
  std::printf("evicting %d VMs, largest first\n", options.vms);
  Seconds longest(0);
  evict(library, evictList, &requested, longest);

  int raised = 0;
  AlertTimes times;
  pollUntilDone(library, options, fleet, evictList, &requested, raised, times, longest);

  if (options.alertsPerPoll == 0) {
    const evict_vm_info& sample = fleet.front();
    for (int code : {2, 18, 501, 503}) library.raise_backup_alert(sample.vm_id, code, "");
    raised = 4;
    std::printf("raised sample alerts 2, 18, 501, 503 for VM %s\n", sample.vm_id);
  }
  library.stop_alert_thread();
  if (!options.alertTimes.empty() && !times.write(options.alertTimes))
    std::fprintf(stderr, "kscdp-engine-sim: cannot write %s\n", options.alertTimes.c_str());
  if (options.record) {
    printResources();
    std::printf("record: longest call %.1f\n", longest.count());
  }

  printSummary(fleet);
  library.delete_from_vm_list(&requested);
  library.delete_evlist(evictList);
  const int done = countDone(fleet);
  std::printf("\n%d of %d VMs done\n", done, options.vms);
  // One alert per eviction pass, 500 or 44, and those raised here.
  std::printf("%d alerts raised\n", options.vms + raised);
  library.unload();
  return done == options.vms ? 0 : 1;
}
