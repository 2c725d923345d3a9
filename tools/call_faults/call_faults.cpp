// kscdp-call-faults.so: a schedule of failing system calls for libfiu's POSIX
// preload library (fiu_posix_preload.so), preloaded into the engine before it
// (scripts/faults.sh), so that this file starts after libfiu's wrappers. It decides, from a seed, which calls fail, and
// fails only calls that libkscdp.so, its stand-in platform or the libraries they use (SQLite, libcurl, libmosquitto)
// make: the engine's own code is not what is tried.
//
// Environment:
//   KSCDP_CALL_FAULTS         "POINT=PROBABILITY ..." : libfiu failure points
//                             and the chance that each call through them fails
//   KSCDP_CALL_FAULTS_SEED    the seed of the draws (a whole number)
//   KSCDP_CALL_FAULTS_COUNTS  where to write, when the process exits, one
//                             line "POINT FAILED" per point
// The schedule starts once the process gets SIGUSR2 (after the library has
// loaded), and stops before the counts are written. A process that ends in
// std::terminate() or on SIGSEGV, SIGBUS or SIGABRT writes its stack to
// stderr first: where a failed call took it.
//
// libfiu's POSIX wrappers have no failure point for fcntl(), through which
// SQLite takes its locks; this file adds one, "posix/io/lock/fcntl", for the
// commands that take a lock, failing with ENOLCK.
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <fiu-control.h>
#include <fiu.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>

namespace {

const int kMaxPoints = 64;
const int kStackDepth = 64;
const char kLockPoint[] = "posix/io/lock/fcntl";

struct Point {
  char name[64];
  double probability;
  std::atomic<long> failed{0};
};

Point g_points[kMaxPoints];
int g_pointCount = 0;
std::atomic<bool> g_armed{false};
std::mutex g_drawMutex;
uint64_t g_state = 0;  // xorshift64*; guarded by g_drawMutex

double draw() {
  std::lock_guard<std::mutex> lock(g_drawMutex);
  g_state ^= g_state >> 12;
  g_state ^= g_state << 25;
  g_state ^= g_state >> 27;
  return static_cast<double>((g_state * 2685821657736338717ULL) >> 11) / static_cast<double>(1ULL << 53);
}

// Whether a frame of the calling thread's stack lies in the library or in a
// library it calls on its behalf.
bool calledForTheLibrary() {
  void* frames[kStackDepth];
  const int depth = backtrace(frames, kStackDepth);
  for (int i = 0; i < depth; ++i) {
    Dl_info info;
    if (dladdr(frames[i], &info) == 0 || info.dli_fname == nullptr) continue;
    const char* name = std::strrchr(info.dli_fname, '/');
    name = name != nullptr ? name + 1 : info.dli_fname;
    for (const char* ours : {"libkscdp", "libsqlite3", "libcurl", "libmosquitto"}) {
      if (std::strncmp(name, ours, std::strlen(ours)) == 0) return true;
    }
  }
  return false;
}

int decideOnce(const char* name) {
  for (int i = 0; i < g_pointCount; ++i) {
    Point& point = g_points[i];
    if (std::strcmp(point.name, name) != 0) continue;
    if (draw() >= point.probability || !calledForTheLibrary()) return 0;
    point.failed.fetch_add(1, std::memory_order_relaxed);
    return 1;
  }
  return 0;
}

// Set while this thread decides: what deciding calls never fails. Static
// TLS (the library is preloaded), whose first use allocates nothing.
__thread bool t_deciding __attribute__((tls_model("initial-exec"))) = false;

// libfiu's external method: the point fails when this returns non-zero.
int decide(const char* name, int* /*failnum*/, void** /*failinfo*/, unsigned int* /*flags*/) {
  if (!g_armed.load(std::memory_order_relaxed) || t_deciding) return 0;
  t_deciding = true;
  const int fail = decideOnce(name);
  t_deciding = false;
  return fail;
}
void arm(int /*signal*/) { g_armed.store(true, std::memory_order_relaxed); }

void writeStack(const char* why) {
  g_armed.store(false, std::memory_order_relaxed);
  void* frames[kStackDepth];
  const int depth = backtrace(frames, kStackDepth);
  const ssize_t ignored = write(STDERR_FILENO, why, std::strlen(why));
  (void)ignored;
  backtrace_symbols_fd(frames, depth, STDERR_FILENO);
}

// The stack is written by the handler of the SIGABRT that follows.
void terminated() {
  static const char kWhy[] = "kscdp-call-faults: std::terminate() called\n";
  const ssize_t ignored = write(STDERR_FILENO, kWhy, sizeof kWhy - 1);
  (void)ignored;
  std::abort();
}

void crashed(int signal) {
  writeStack("kscdp-call-faults: fatal signal, stack:\n");
  ::signal(signal, SIG_DFL);
  raise(signal);
}

void parseSchedule(const char* text) {
  while (text != nullptr && *text != '\0' && g_pointCount < kMaxPoints) {
    while (*text == ' ') ++text;
    const char* end = std::strchr(text, ' ');
    const size_t length = end != nullptr ? static_cast<size_t>(end - text) : std::strlen(text);
    const char* equals = static_cast<const char*>(std::memchr(text, '=', length));
    if (equals != nullptr && static_cast<size_t>(equals - text) < sizeof g_points[0].name) {
      Point& point = g_points[g_pointCount++];
      std::memcpy(point.name, text, static_cast<size_t>(equals - text));
      point.probability = std::strtod(equals + 1, nullptr);
    }
    text = end;
  }
}

__attribute__((constructor)) void start() {
  uint64_t seed = 1;
  if (const char* text = std::getenv("KSCDP_CALL_FAULTS_SEED")) seed = std::strtoull(text, nullptr, 10);
  g_state = seed * 0x9E3779B97F4A7C15ULL + 1;  // never zero for a small seed
  parseSchedule(std::getenv("KSCDP_CALL_FAULTS"));
  // backtrace() loads its unwinder on first use: not inside a failing call.
  void* warmUp[1];
  backtrace(warmUp, 1);
  fiu_init(0);
  for (int i = 0; i < g_pointCount; ++i) fiu_enable_external(g_points[i].name, 1, nullptr, 0, decide);
  struct sigaction action {};
  action.sa_handler = arm;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(SIGUSR2, &action, nullptr);
  std::set_terminate(terminated);
  action.sa_handler = crashed;
  action.sa_flags = SA_RESETHAND;
  for (int fatal : {SIGSEGV, SIGBUS, SIGABRT}) sigaction(fatal, &action, nullptr);
}

__attribute__((destructor)) void finish() {
  g_armed.store(false, std::memory_order_relaxed);
  const char* path = std::getenv("KSCDP_CALL_FAULTS_COUNTS");
  if (path == nullptr) return;
  FILE* counts = std::fopen(path, "w");
  if (counts == nullptr) return;
  for (int i = 0; i < g_pointCount; ++i) std::fprintf(counts, "%s %ld\n", g_points[i].name, g_points[i].failed.load());
  std::fclose(counts);
}

// Only taking a lock may fail: the kernel releases one without needing
// anything it could run out of. A failed release would leave SQLite holding
// a lock it has given up, and its readers retrying against it, which no
// host does.
bool takesALock(int command, void* argument) {
  const bool setsALock = command == F_SETLK || command == F_SETLKW || command == F_OFD_SETLK || command == F_OFD_SETLKW;
  return setsALock && static_cast<const struct flock*>(argument)->l_type != F_UNLCK;
}

using Fcntl = int (*)(int, int, ...);

// The descriptor commands' argument is an int or a pointer: both pass in the
// same register, so it is handed on as a pointer.
int failOrCall(const char* symbol, int fd, int command, void* argument) {
  static std::atomic<Fcntl> next[2];
  const int which = std::strcmp(symbol, "fcntl") == 0 ? 0 : 1;
  Fcntl real = next[which].load();
  if (real == nullptr) {
    real = reinterpret_cast<Fcntl>(dlsym(RTLD_NEXT, symbol));
    next[which].store(real);
  }
  if (takesALock(command, argument) && fiu_fail(kLockPoint) != 0) {
    errno = ENOLCK;
    return -1;
  }
  return real(fd, command, argument);
}

}  // namespace

extern "C" {

int fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return failOrCall("fcntl", fd, command, argument);
}

int fcntl64(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return failOrCall("fcntl64", fd, command, argument);
}

}  // extern "C"
