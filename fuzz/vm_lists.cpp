#include "vm_lists.h"

#include <algorithm>
#include <set>

#include "fuzz_check.h"

namespace fuzz {
namespace {

bool contains(const std::vector<evict_vm_info*>& vms, const evict_vm_info* vm) {
  return std::find(vms.begin(), vms.end(), vm) != vms.end();
}

}  // namespace

ListContents checkedContents(const evict_vm_list* evictList, const vm_node_list* requested,
                             const std::vector<evict_vm_info*>& pool) {
  ListContents contents;
  if (evictList != nullptr) {
    FUZZ_CHECK(evictList->count >= 0 && evictList->count <= evictList->capacity);
    for (int i = 0; i < evictList->count; ++i) {
      evict_vm_info* vm = evictList->vms[i];
      FUZZ_CHECK(contains(pool, vm));
      if (i > 0) FUZZ_CHECK(evictList->vms[(i - 1) / 2]->vm_size >= vm->vm_size);
      contents.evict.push_back(vm);
    }
  }
  // A requested list longer than the pool has a cycle or a duplicate.
  for (const vm_node_list* node = requested; node != nullptr; node = node->next) {
    FUZZ_CHECK(contains(pool, node->vm));
    contents.requested.push_back(node->vm);
    FUZZ_CHECK(contents.requested.size() <= pool.size());
  }
  std::set<evict_vm_info*> held(contents.evict.begin(), contents.evict.end());
  held.insert(contents.requested.begin(), contents.requested.end());
  FUZZ_CHECK(held.size() == contents.evict.size() + contents.requested.size());
  return contents;
}

bool isFree(const ListContents& contents, const evict_vm_info* vm) {
  return !contains(contents.evict, vm) && !contains(contents.requested, vm);
}

}  // namespace fuzz
