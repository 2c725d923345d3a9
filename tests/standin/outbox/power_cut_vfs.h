// A power cut for SQLite, played inside one process: an SQLite VFS stacked
// on the default one that holds apart every write made to a file since that
// file's last sync, and at the cut drops those writes, wholly or in part,
// and ends the process.
#ifndef KSCDP_TESTS_STANDIN_OUTBOX_POWER_CUT_VFS_H_
#define KSCDP_TESTS_STANDIN_OUTBOX_POWER_CUT_VFS_H_

#include <cstdint>
#include <string>

namespace power_cut {

// What the disk does with a write it has not synced when the power goes.
//
// Every write and truncation reaches the file at once, as the kernel's page
// cache would show it; the VFS keeps what each one overwrote until the file
// is synced. At the cut, each held write, newest first, is kept, lost, or
// torn (each 512-byte sector of it kept or lost on its own); a lost sector
// gets back what it held before, and a truncation is kept or lost whole.
// A sync marks the file's writes durable and returns at once: the cut is
// played, so the disk's own sync would add only time.
struct Plan {
  uint64_t seed = 0;  // draws every choice above
  // The power goes before the n-th write, truncation or sync of any file,
  // counted from 1; 0: only when cut() is called.
  uint64_t cutBeforeOperation = 0;
  // Called with the VFS's lock held, after a sync of the file at `path` has
  // made its writes durable.
  void (*afterSync)(const char* path) = nullptr;
  // Called with the VFS's lock held, after the held writes were dropped and
  // before the process ends: the last word of the process.
  void (*atCut)(uint64_t operations) = nullptr;
};

// Registers the VFS as the process's default, stacked on the default VFS of
// the moment. Call once, before any database is opened, in a process that
// is to be cut (a forked child). False when SQLite refuses it.
bool install(const Plan& plan);

// Cuts the power now: drops the held writes as the plan draws, calls
// Plan::atCut and ends the process with status 0. Thread-safe; any other
// thread that reaches the VFS meanwhile waits for the end.
[[noreturn]] void cut();

// What a cut leaves of the shared-memory index of the database at
// `databasePath` (its "-shm" file, which SQLite maps and never syncs): the
// file kept, emptied, zeroed or partly overwritten with noise, as `seed`
// draws. Call once the process that was cut has ended: a process that maps
// the file dies of SIGBUS when it shrinks.
void scrambleIndex(const std::string& databasePath, uint64_t seed);

}  // namespace power_cut

#endif  // KSCDP_TESTS_STANDIN_OUTBOX_POWER_CUT_VFS_H_
