// The fuzz driver's view of the engine's two VM lists: what they hold, and
// the checks that must pass after every call that may touch them.
#ifndef KSCDP_FUZZ_VM_LISTS_H_
#define KSCDP_FUZZ_VM_LISTS_H_

#include <kscdp/eviction_data.h>

#include <vector>

namespace fuzz {

// The VMs of both lists, in list order: the evict list's live slots and the
// requested list from its head.
struct ListContents {
  std::vector<evict_vm_info*> evict;
  std::vector<evict_vm_info*> requested;
};

// Reads both lists and checks them: the evict list's count is within its
// capacity and its slots form a max-heap on vm_size; every VM in either list
// is one of `pool` and is held at most once by both lists together.
ListContents checkedContents(const evict_vm_list* evictList, const vm_node_list* requested,
                             const std::vector<evict_vm_info*>& pool);

// True when `vm` is in neither list.
bool isFree(const ListContents& contents, const evict_vm_info* vm);

}  // namespace fuzz

#endif  // KSCDP_FUZZ_VM_LISTS_H_
