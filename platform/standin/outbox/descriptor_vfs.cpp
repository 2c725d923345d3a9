#include "platform/standin/outbox/descriptor_vfs.h"

#include <sqlite3.h>

#include <cstring>

#include "port/mutex.h"
#include "port/no_destructor.h"

namespace standin {
namespace {

const char kVfsName[] = "kscdp-descriptor";

// The name is already the one to use: absolute, and naming the file through
// the directory's descriptor. SQLite keys its own bookkeeping (locks, shared
// memory) by the file's inode, not by this name.
int nameAsGiven(sqlite3_vfs* /*vfs*/, const char* name, int size, char* out) noexcept {
  const size_t length = std::strlen(name);
  if (name[0] != '/' || length >= static_cast<size_t>(size)) return SQLITE_CANTOPEN;
  std::memcpy(out, name, length + 1);
  return SQLITE_OK;
}

// Never destroyed: unloading unregisters it first.
struct Registration {
  port::Mutex mutex;
  sqlite3_vfs vfs GUARDED_BY(mutex){};
  bool registered GUARDED_BY(mutex) = false;
};
port::NoDestructor<Registration> g_registration;

}  // namespace

const char* descriptorVfs() {
  port::MutexLock lock(g_registration->mutex);
  if (g_registration->registered) return kVfsName;
  const sqlite3_vfs* base = sqlite3_vfs_find(nullptr);
  if (base == nullptr) return nullptr;
  sqlite3_vfs& vfs = g_registration->vfs;
  vfs = *base;  // the default VFS's methods take their settings from this copy
  vfs.pNext = nullptr;
  vfs.zName = kVfsName;
  vfs.xFullPathname = &nameAsGiven;
  if (sqlite3_vfs_register(&vfs, 0) != SQLITE_OK) return nullptr;
  g_registration->registered = true;
  return kVfsName;
}

void releaseDescriptorVfs() {
  port::MutexLock lock(g_registration->mutex);
  if (!g_registration->registered) return;
  sqlite3_vfs_unregister(&g_registration->vfs);
  g_registration->registered = false;
}

}  // namespace standin
