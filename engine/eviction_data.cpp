// The engine's VM lists. All memory of the lists comes from cct_malloc and
// goes back through cct_free; the VM records are the engine's and are never
// allocated, copied or released here.
#include <kscdp/eviction_data.h>

#include <cstddef>

#include "platform/ksqd_client.h"

// The engine is compiled against these offsets.
static_assert(offsetof(evict_vm_info, job_id) == 0, "evict_vm_info layout");
static_assert(offsetof(evict_vm_info, evict_state) == 8, "evict_vm_info layout");
static_assert(offsetof(evict_vm_info, vm_size) == 16, "evict_vm_info layout");
static_assert(offsetof(evict_vm_info, vm_id) == 24, "evict_vm_info layout");
static_assert(offsetof(evict_vm_info, policy_name) == 57, "evict_vm_info layout");
static_assert(offsetof(evict_vm_info, evict_type) == 316, "evict_vm_info layout");
static_assert(sizeof(evict_vm_info) == 320, "evict_vm_info layout");
static_assert(offsetof(evict_vm_list, capacity) == 0, "evict_vm_list layout");
static_assert(offsetof(evict_vm_list, count) == 4, "evict_vm_list layout");
static_assert(offsetof(evict_vm_list, vms) == 8, "evict_vm_list layout");
static_assert(sizeof(evict_vm_list) == 16, "evict_vm_list layout");
static_assert(offsetof(vm_node_list, vm) == 0, "vm_node_list layout");
static_assert(offsetof(vm_node_list, next) == 8, "vm_node_list layout");
static_assert(sizeof(vm_node_list) == 16, "vm_node_list layout");

namespace {

bool isLarger(const evict_vm_info* a, const evict_vm_info* b) { return a->vm_size > b->vm_size; }

// Moves the VM at `index` down until no child is larger, taking the larger
// child up a level each step (the left one when both are equal). The VM is
// held aside and written once, where it stops. Indexes are 64-bit: 2 * index
// + 2 must not overflow for any int index.
//
// Written so that the child is picked with a branch, not a conditional move
// on an index: the processor then runs ahead into the next level's loads
// while this level's records are still on their way from memory, which in a
// list of a million VMs halves the time of a removal.
void siftDown(evict_vm_info** vms, long long count, long long index) {
  evict_vm_info* const vm = vms[index];
  for (;;) {
    long long child = 2 * index + 1;
    if (child >= count) break;
    evict_vm_info* larger = vms[child];
    if (child + 1 < count && isLarger(vms[child + 1], larger)) larger = vms[++child];
    if (!isLarger(larger, vm)) break;
    vms[index] = larger;
    index = child;
  }
  vms[index] = vm;
}

template <typename T>
void release(const char* caller, T** pointer, int line) {
  void* raw = *pointer;
  cct_free(caller, &raw, line);
  *pointer = nullptr;
}

}  // namespace

extern "C" {

int initialize_evlist(evict_vm_list** list, int capacity) {
  if (list == nullptr) return KSCDP_LIST_NULL;
  *list = static_cast<evict_vm_list*>(cct_malloc("initialize_evlist", sizeof(evict_vm_list), __LINE__));
  if (*list == nullptr) return KSCDP_LIST_NULL;
  (*list)->capacity = capacity;
  (*list)->count = 0;
  (*list)->vms = nullptr;
  if (capacity >= 0) {
    const size_t bytes = static_cast<size_t>(capacity) * sizeof(evict_vm_info*);
    (*list)->vms = static_cast<evict_vm_info**>(cct_malloc("initialize_evlist", bytes, __LINE__));
  }
  if ((*list)->vms == nullptr) {
    release("initialize_evlist", list, __LINE__);
    return KSCDP_LIST_NULL;
  }
  return KSCDP_OK;
}

int insert_vm_into_evlist(evict_vm_list* list, evict_vm_info* vm) {
  if (list == nullptr || vm == nullptr) return KSCDP_LIST_NULL;
  if (list->count >= list->capacity) return KSCDP_LIST_FULL;
  int i = list->count++;
  while (i > 0) {
    const int parent = (i - 1) / 2;
    if (!isLarger(vm, list->vms[parent])) break;
    list->vms[i] = list->vms[parent];
    i = parent;
  }
  list->vms[i] = vm;
  return KSCDP_OK;
}

evict_vm_info* get_element_from_evlist(evict_vm_list* list) {
  if (list == nullptr || list->count <= 0) return nullptr;
  return list->vms[0];
}

int remove_vm_from_evlist(evict_vm_list* list) {
  if (list == nullptr) return KSCDP_LIST_NULL;
  if (list->count <= 0) return KSCDP_LIST_EMPTY;
  list->vms[0] = list->vms[list->count - 1];
  list->count--;
  siftDown(list->vms, list->count, 0);  // with no VM left, writes slot 0 back as it is
  return KSCDP_OK;
}

int realign_element_in_vm_list(evict_vm_list* list, int index) {
  if (list == nullptr || index < 0 || index >= list->count) return KSCDP_OK;
  siftDown(list->vms, list->count, index);
  return KSCDP_OK;
}

void delete_evlist(evict_vm_list* list) {
  if (list == nullptr) return;
  if (list->vms != nullptr) release("delete_evlist", &list->vms, __LINE__);
  release("delete_evlist", &list, __LINE__);
}

int insert_into_vm_list(vm_node_list** head, evict_vm_info* vm) {
  if (head == nullptr || vm == nullptr) return KSCDP_LIST_NULL;
  auto* node = static_cast<vm_node_list*>(cct_malloc("insert_into_vm_list", sizeof(vm_node_list), __LINE__));
  if (node == nullptr) return KSCDP_LIST_NO_MEMORY;
  node->vm = vm;
  node->next = *head;
  *head = node;
  return KSCDP_OK;
}

evict_vm_info* get_from_vm_list(vm_node_list** head) {
  if (head == nullptr || *head == nullptr) return nullptr;
  vm_node_list* node = *head;
  *head = node->next;
  evict_vm_info* vm = node->vm;
  // Nothing refers to the unlinked node any more.
  release("get_from_vm_list", &node, __LINE__);
  return vm;
}

int delete_from_vm_list(vm_node_list** head) {
  if (head == nullptr) return KSCDP_OK;
  while (*head != nullptr) {
    vm_node_list* node = *head;
    *head = node->next;
    release("delete_from_vm_list", &node, __LINE__);
  }
  return KSCDP_OK;
}

}  // extern "C"
