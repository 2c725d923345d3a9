// The SQLite VFS through which the outbox opens its files: SQLite's own,
// except that a file's name is used as given. The outbox names its files
// "/proc/self/fd/<directory>/<name>" (PrivateDirectory), which the kernel
// resolves through the descriptor of the directory that was checked; SQLite's
// default VFS would first resolve that name's links into the directory's path
// again, which another user may have pointed elsewhere meanwhile.
#ifndef KSCDP_PLATFORM_STANDIN_OUTBOX_DESCRIPTOR_VFS_H_
#define KSCDP_PLATFORM_STANDIN_OUTBOX_DESCRIPTOR_VFS_H_

namespace standin {

// The VFS's name for sqlite3_open_v2(), registering it (not as the default)
// on first use; null when SQLite has no default VFS to build on. Thread-safe.
const char* descriptorVfs();

// Unregisters the VFS, if it was registered: for unloading, once no
// connection is open.
void releaseDescriptorVfs();

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_OUTBOX_DESCRIPTOR_VFS_H_
