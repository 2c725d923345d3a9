#include "standin/outbox/power_cut_vfs.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "port/mutex.h"
#include "port/no_destructor.h"

namespace power_cut {
namespace {

const int64_t kSectorBytes = 512;

// What one write or truncation overwrote, kept until its file is synced.
struct HeldWrite {
  int64_t offset;
  std::string before;  // the bytes at `offset` before it; zeros past the file's end
  int64_t sizeBefore;  // the file's size before it
  bool truncation;
};

struct State {
  port::Mutex mutex;
  sqlite3_vfs* base = nullptr;  // the default VFS that this one stacks on
  sqlite3_vfs vfs{};
  Plan plan;
  std::mt19937_64 random GUARDED_BY(mutex);
  uint64_t operations GUARDED_BY(mutex) = 0;
  // Per file path, oldest first.
  std::map<std::string, std::vector<HeldWrite>> held GUARDED_BY(mutex);
};
// Lives until the process ends: the cut ends it with the lock held.
port::NoDestructor<State> g_state;

// The file SQLite sees: the default VFS's own file follows it in the same
// allocation (szOsFile covers both).
struct CutFile {
  sqlite3_file base;
  sqlite3_file* real;
  const char* path;  // SQLite's, valid until xClose; null for a temporary file
};

CutFile* cutFile(sqlite3_file* file) { return reinterpret_cast<CutFile*>(file); }
sqlite3_file* real(sqlite3_file* file) { return cutFile(file)->real; }

// The cut's own I/O must not fail unseen: the test would then check a disk
// that no power cut made.
void orDie(bool done, const char* what, const std::string& path) {
  if (done) return;
  std::fprintf(stderr, "power cut: cannot %s %s: %s\n", what, path.c_str(), std::strerror(errno));
  _exit(2);
}

void putBack(int fd, const std::string& path, const std::string& bytes, int64_t offset) {
  orDie(pwrite(fd, bytes.data(), bytes.size(), offset) == static_cast<ssize_t>(bytes.size()), "restore", path);
}

// Drops the held writes of one file, newest first: each is kept, lost or
// torn sector by sector. A sector that is lost holds what it held before
// the write; the file ends after its last kept byte, or where it ended
// before the write, whichever is later.
void dropHeldWrites(const std::string& path, const std::vector<HeldWrite>& writes, std::mt19937_64& random) {
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0 && errno == ENOENT) return;
  orDie(fd >= 0, "open", path);
  int64_t keptEnd = 0;
  for (auto write = writes.rbegin(); write != writes.rend(); ++write) {
    const unsigned fate = random() % 3;  // 0 kept, 1 lost, 2 torn
    const int64_t end = write->offset + static_cast<int64_t>(write->before.size());
    if (write->truncation) {
      if (fate != 0) putBack(fd, path, write->before, write->offset);
    } else {
      for (int64_t sector = write->offset; sector < end; sector = (sector / kSectorBytes + 1) * kSectorBytes) {
        const int64_t sectorEnd = std::min(end, (sector / kSectorBytes + 1) * kSectorBytes);
        if (fate == 0 || (fate == 2 && random() % 2 == 0)) {
          keptEnd = std::max(keptEnd, sectorEnd);
        } else {
          putBack(fd, path, write->before.substr(sector - write->offset, sectorEnd - sector), sector);
        }
      }
    }
    orDie(ftruncate(fd, std::max(write->sizeBefore, keptEnd)) == 0, "resize", path);
  }
  close(fd);
}

}  // namespace

void scrambleIndex(const std::string& databasePath, uint64_t seed) {
  const std::string path = databasePath + "-shm";
  std::mt19937_64 random(seed);
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return;
  struct stat file {};
  orDie(fstat(fd, &file) == 0, "stat", path);
  switch (random() % 4) {
    case 0: break;
    case 1: orDie(ftruncate(fd, 0) == 0, "empty", path); break;
    case 2: putBack(fd, path, std::string(file.st_size, '\0'), 0); break;
    default: {
      const int64_t offset = file.st_size > 0 ? static_cast<int64_t>(random() % file.st_size) : 0;
      std::string noise(std::min<int64_t>(file.st_size - offset, 1 + random() % 4096), '\0');
      for (char& byte : noise) byte = static_cast<char>(random());
      putBack(fd, path, noise, offset);
    }
  }
  close(fd);
}

namespace {

[[noreturn]] void cutHoldingTheLock() NO_THREAD_SAFETY_ANALYSIS {
  State& state = *g_state;
  for (const auto& [path, writes] : state.held) dropHeldWrites(path, writes, state.random);
  if (state.plan.atCut != nullptr) state.plan.atCut(state.operations);
  _exit(0);
}

// Counts one write, truncation or sync; the planned one is never made.
void countOperation() REQUIRES(g_state->mutex) {
  if (++g_state->operations == g_state->plan.cutBeforeOperation) cutHoldingTheLock();
}

// Notes what the coming write or truncation of [offset, offset + bytes)
// overwrites, before it is made.
int hold(sqlite3_file* file, int64_t offset, int64_t bytes, bool truncation) REQUIRES(g_state->mutex) {
  const CutFile* cut = cutFile(file);
  if (cut->path == nullptr) return SQLITE_OK;  // a temporary file outlives no cut
  sqlite3_int64 size = 0;
  int code = cut->real->pMethods->xFileSize(cut->real, &size);
  if (code != SQLITE_OK) return code;
  HeldWrite write{offset, std::string(bytes, '\0'), size, truncation};
  code = cut->real->pMethods->xRead(cut->real, write.before.data(), static_cast<int>(bytes), offset);
  if (code != SQLITE_OK && code != SQLITE_IOERR_SHORT_READ) return code;
  g_state->held[cut->path].push_back(std::move(write));
  return SQLITE_OK;
}

int closeFile(sqlite3_file* file) { return real(file)->pMethods->xClose(real(file)); }

int readFile(sqlite3_file* file, void* buffer, int bytes, sqlite3_int64 offset) {
  return real(file)->pMethods->xRead(real(file), buffer, bytes, offset);
}

int writeFile(sqlite3_file* file, const void* buffer, int bytes, sqlite3_int64 offset) {
  port::MutexLock lock(g_state->mutex);
  countOperation();
  const int code = hold(file, offset, bytes, false);
  return code != SQLITE_OK ? code : real(file)->pMethods->xWrite(real(file), buffer, bytes, offset);
}

int truncateFile(sqlite3_file* file, sqlite3_int64 size) {
  port::MutexLock lock(g_state->mutex);
  countOperation();
  sqlite3_int64 current = 0;
  int code = real(file)->pMethods->xFileSize(real(file), &current);
  if (code == SQLITE_OK && current > size) code = hold(file, size, current - size, true);
  return code != SQLITE_OK ? code : real(file)->pMethods->xTruncate(real(file), size);
}

int syncFile(sqlite3_file* file, int /*flags*/) {
  port::MutexLock lock(g_state->mutex);
  countOperation();
  const char* path = cutFile(file)->path;
  if (path == nullptr) return SQLITE_OK;
  g_state->held.erase(path);
  if (g_state->plan.afterSync != nullptr) g_state->plan.afterSync(path);
  return SQLITE_OK;
}

int fileSize(sqlite3_file* file, sqlite3_int64* size) { return real(file)->pMethods->xFileSize(real(file), size); }
int lockFile(sqlite3_file* file, int level) { return real(file)->pMethods->xLock(real(file), level); }
int unlockFile(sqlite3_file* file, int level) { return real(file)->pMethods->xUnlock(real(file), level); }
int checkReservedLock(sqlite3_file* file, int* held) {
  return real(file)->pMethods->xCheckReservedLock(real(file), held);
}
int fileControl(sqlite3_file* file, int operation, void* argument) {
  return real(file)->pMethods->xFileControl(real(file), operation, argument);
}
int sectorSize(sqlite3_file* file) { return real(file)->pMethods->xSectorSize(real(file)); }
int deviceCharacteristics(sqlite3_file* file) { return real(file)->pMethods->xDeviceCharacteristics(real(file)); }
int shmMap(sqlite3_file* file, int region, int bytes, int extend, void volatile** memory) {
  return real(file)->pMethods->xShmMap(real(file), region, bytes, extend, memory);
}
int shmLock(sqlite3_file* file, int offset, int count, int flags) {
  return real(file)->pMethods->xShmLock(real(file), offset, count, flags);
}
void shmBarrier(sqlite3_file* file) { real(file)->pMethods->xShmBarrier(real(file)); }
int shmUnmap(sqlite3_file* file, int deleteFlag) { return real(file)->pMethods->xShmUnmap(real(file), deleteFlag); }

// Version 2: shared memory for the WAL's index, but no memory-mapped reads,
// so that every byte SQLite reads comes through readFile().
const sqlite3_io_methods kMethods = {2,
                                     &closeFile,
                                     &readFile,
                                     &writeFile,
                                     &truncateFile,
                                     &syncFile,
                                     &fileSize,
                                     &lockFile,
                                     &unlockFile,
                                     &checkReservedLock,
                                     &fileControl,
                                     &sectorSize,
                                     &deviceCharacteristics,
                                     &shmMap,
                                     &shmLock,
                                     &shmBarrier,
                                     &shmUnmap,
                                     nullptr,
                                     nullptr};

int openFile(sqlite3_vfs* /*vfs*/, const char* name, sqlite3_file* file, int flags, int* outFlags) {
  CutFile* cut = cutFile(file);
  cut->real = reinterpret_cast<sqlite3_file*>(cut + 1);
  cut->path = name;
  sqlite3_vfs* base = g_state->base;
  const int code = base->xOpen(base, name, cut->real, flags, outFlags);
  if (code != SQLITE_OK) {
    if (cut->real->pMethods != nullptr) cut->real->pMethods->xClose(cut->real);
    cut->base.pMethods = nullptr;
    return code;
  }
  cut->base.pMethods = &kMethods;
  return SQLITE_OK;
}

int deleteFile(sqlite3_vfs* /*vfs*/, const char* name, int syncDirectory) {
  {
    port::MutexLock lock(g_state->mutex);
    g_state->held.erase(name);  // what the file held goes with it
  }
  return g_state->base->xDelete(g_state->base, name, syncDirectory);
}

}  // namespace

bool install(const Plan& plan) {
  State& state = *g_state;
  state.base = sqlite3_vfs_find(nullptr);
  if (state.base == nullptr || state.base->iVersion < 2) return false;
  state.plan = plan;
  {
    port::MutexLock lock(state.mutex);
    state.random.seed(plan.seed);
  }
  // Every call but those on files goes to the default VFS as it is.
  sqlite3_vfs& vfs = state.vfs;
  vfs = *state.base;
  vfs.iVersion = 2;
  vfs.szOsFile = static_cast<int>(sizeof(CutFile)) + state.base->szOsFile;
  vfs.pNext = nullptr;
  vfs.zName = "power-cut";
  vfs.xOpen = &openFile;
  vfs.xDelete = &deleteFile;
  return sqlite3_vfs_register(&vfs, 1) == SQLITE_OK;
}

void cut() NO_THREAD_SAFETY_ANALYSIS {
  g_state->mutex.lock();
  cutHoldingTheLock();
}

}  // namespace power_cut
