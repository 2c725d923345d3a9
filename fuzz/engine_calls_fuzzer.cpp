// The engine's side of the library: the list functions and the four calls,
// in the order the input picks, over the fake platform scripted by the input
// to fail in every way it can. The calls run bare, as the engine makes them:
// an exception that escapes one ends the program and libFuzzer keeps the
// input. After every step both lists must still be sound (vm_lists.h); at the
// end of a run no list memory and no HTTP client may be left, and whatever
// else was not released (a daemon answer, say) LeakSanitizer reports.
#include <fuzzer/FuzzedDataProvider.h>
#include <kscdp/backup_engine.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "fault_script.h"
#include "fuzz_check.h"
#include "vm_lists.h"

namespace {

constexpr int kPoolSize = 8;
constexpr int kMaxSteps = 48;

// The engine's records, which only the engine allocates, and its two lists.
class Engine {
 public:
  explicit Engine(FuzzedDataProvider& input) : m_input(input) {
    for (evict_vm_info& vm : m_records) {
      makeVm(vm);
      m_pool.push_back(&vm);
    }
  }

  ~Engine() {
    deleteEvictList();
    deleteRequested();
    fake::notifications.shutdownThrows = false;
    FUZZ_CHECK(stop_alert_thread() == 0);
    FUZZ_CHECK(fake::allocator.live == 0);
    FUZZ_CHECK(fake::curl.live == 0);
  }

  void step() {
    const fuzz::ListContents before = checkedContents();
    switch (m_input.ConsumeIntegralInRange(0, 13)) {
      case 0: initialize(); break;
      case 1: insertIntoEvictList(before); break;
      case 2: peekTop(before); break;
      case 3: removeTop(before); break;
      case 4: shrinkAndRealign(before); break;
      case 5: deleteEvictList(); break;
      case 6: insertIntoRequested(before); break;
      case 7: takeFromRequested(before); break;
      case 8: deleteRequested(); break;
      case 9: evict(before); break;
      case 10: checkProgress(before); break;
      case 11: raiseAlert(); break;
      case 12: FUZZ_CHECK(stop_alert_thread() == 0); break;
      case 13: fuzz::scriptPlatform(m_input); break;
    }
    checkedContents();
  }

 private:
  fuzz::ListContents checkedContents() const { return fuzz::checkedContents(m_evictList, m_requested, m_pool); }

  // Sizes from a small range collide, which exercises the heap's ties.
  void makeVm(evict_vm_info& vm) {
    std::memset(&vm, 0, sizeof vm);
    vm.job_id = m_input.ConsumeIntegral<uint64_t>();
    vm.evict_state = m_input.ConsumeIntegralInRange(-1, 3);
    vm.vm_size =
        m_input.ConsumeBool() ? m_input.ConsumeIntegralInRange<uint64_t>(0, 4) : m_input.ConsumeIntegral<uint64_t>();
    fill(vm.vm_id, sizeof vm.vm_id);
    fill(vm.policy_name, sizeof vm.policy_name);
    vm.evict_type = m_input.ConsumeIntegral<int32_t>();
  }

  // Usually NUL-terminated text; sometimes the whole field is filled, as a
  // careless engine might leave it.
  void fill(char* field, size_t size) {
    const std::string text = m_input.ConsumeRandomLengthString(size);
    std::memcpy(field, text.data(), std::min(text.size(), size));
  }

  void peekTop(const fuzz::ListContents& before) {
    FUZZ_CHECK(get_element_from_evlist(m_evictList) == (before.evict.empty() ? nullptr : before.evict[0]));
  }

  void deleteEvictList() {
    delete_evlist(m_evictList);
    m_evictList = nullptr;
  }

  void deleteRequested() {
    FUZZ_CHECK(delete_from_vm_list(&m_requested) == 0);
    FUZZ_CHECK(m_requested == nullptr);
  }

  evict_vm_info* anyVm() {
    return m_input.ConsumeIntegralInRange(0, 15) == 0 ? nullptr
                                                      : m_pool[m_input.ConsumeIntegralInRange(0, kPoolSize - 1)];
  }

  // A VM that is in neither list (or null): the engine holds each VM in one
  // list at most.
  evict_vm_info* freeVm(const fuzz::ListContents& now) {
    evict_vm_info* vm = anyVm();
    return vm == nullptr || fuzz::isFree(now, vm) ? vm : nullptr;
  }

  void initialize() {
    deleteEvictList();
    const int capacity = m_input.ConsumeIntegralInRange(-2, kPoolSize + 2);
    const size_t allocations = fake::allocator.callers.size();
    const int result = initialize_evlist(&m_evictList, capacity);
    if (result != 0) {
      FUZZ_CHECK(result == -1 && m_evictList == nullptr);
      FUZZ_CHECK(capacity < 0 || fuzz::allocationFailedSince(allocations));
      return;
    }
    FUZZ_CHECK(capacity >= 0 && m_evictList->capacity == capacity && m_evictList->count == 0);
  }

  void insertIntoEvictList(const fuzz::ListContents& before) {
    evict_vm_info* vm = freeVm(before);
    const int result = insert_vm_into_evlist(m_evictList, vm);
    if (m_evictList == nullptr || vm == nullptr) {
      FUZZ_CHECK(result == -1);
      return;
    }
    const bool full = static_cast<int>(before.evict.size()) == m_evictList->capacity;
    FUZZ_CHECK(result == (full ? 1 : 0));
    FUZZ_CHECK(checkedContents().evict.size() == before.evict.size() + (full ? 0 : 1));
  }

  void removeTop(const fuzz::ListContents& before) {
    const int result = remove_vm_from_evlist(m_evictList);
    if (m_evictList == nullptr) {
      FUZZ_CHECK(result == -1);
      return;
    }
    FUZZ_CHECK(result == (before.evict.empty() ? 2 : 0));
    const fuzz::ListContents after = checkedContents();
    if (!before.evict.empty()) FUZZ_CHECK(fuzz::isFree(after, before.evict[0]));
  }

  // The engine shrinks a VM in place and sifts its slot down; any other
  // index (negative, past the count) must leave the list alone.
  void shrinkAndRealign(const fuzz::ListContents& before) {
    int index = m_input.ConsumeIntegral<int>();
    if (!before.evict.empty() && m_input.ConsumeBool()) {
      index = m_input.ConsumeIntegralInRange(0, static_cast<int>(before.evict.size()) - 1);
      evict_vm_info* vm = before.evict[index];
      vm->vm_size = m_input.ConsumeIntegralInRange<uint64_t>(0, vm->vm_size);
    }
    FUZZ_CHECK(realign_element_in_vm_list(m_evictList, index) == 0);
    const fuzz::ListContents after = checkedContents();
    FUZZ_CHECK(std::is_permutation(after.evict.begin(), after.evict.end(), before.evict.begin(), before.evict.end()));
  }

  void insertIntoRequested(const fuzz::ListContents& before) {
    evict_vm_info* vm = freeVm(before);
    const bool nullHead = m_input.ConsumeIntegralInRange(0, 15) == 0;
    const size_t allocations = fake::allocator.callers.size();
    const int result = insert_into_vm_list(nullHead ? nullptr : &m_requested, vm);
    if (nullHead || vm == nullptr) {
      FUZZ_CHECK(result == -1);
      return;
    }
    FUZZ_CHECK(result == (fuzz::allocationFailedSince(allocations) ? 3 : 0));
    if (result == 0) FUZZ_CHECK(m_requested->vm == vm);
  }

  void takeFromRequested(const fuzz::ListContents& before) {
    const bool nullHead = m_input.ConsumeIntegralInRange(0, 15) == 0;
    evict_vm_info* vm = get_from_vm_list(nullHead ? nullptr : &m_requested);
    FUZZ_CHECK(vm == (nullHead || before.requested.empty() ? nullptr : before.requested[0]));
  }

  // Passes run from the top of the evict list; each VM requested moves to the
  // front of the requested list, marked requested. A VM leaves both lists
  // only when the node for it could not be allocated.
  void evict(const fuzz::ListContents& before) {
    const int passes = m_input.ConsumeIntegralInRange(-1, static_cast<int>(before.evict.size()) + 1);
    const bool nullRequested = m_input.ConsumeIntegralInRange(0, 15) == 0;
    const size_t allocations = fake::allocator.callers.size();
    call_evict_data(passes, m_evictList, nullRequested ? nullptr : &m_requested);

    const fuzz::ListContents after = checkedContents();
    FUZZ_CHECK(after.requested.size() >= before.requested.size());
    const size_t added = after.requested.size() - before.requested.size();
    FUZZ_CHECK(std::equal(before.requested.begin(), before.requested.end(), after.requested.begin() + added));
    for (size_t i = 0; i < added; ++i) {
      FUZZ_CHECK(!fuzz::isFree(before, after.requested[i]) && after.requested[i]->evict_state == 1);
    }
    for (evict_vm_info* vm : after.evict) FUZZ_CHECK(!fuzz::isFree(before, vm));
    FUZZ_CHECK(after.evict.size() + added <= before.evict.size());
    if (after.evict.size() + added < before.evict.size()) FUZZ_CHECK(fuzz::allocationFailedSince(allocations));
  }

  // Only the states of the first `nodes` requested VMs change, to 1 or 2;
  // neither list changes.
  void checkProgress(const fuzz::ListContents& before) {
    const int nodes = m_input.ConsumeIntegralInRange(-1, kPoolSize + 1);
    const bool nullRequested = m_input.ConsumeIntegralInRange(0, 15) == 0;
    std::array<int32_t, kPoolSize> states;
    for (int i = 0; i < kPoolSize; ++i) states[i] = m_records[i].evict_state;
    call_check_eviction_progress(nodes, nullRequested ? nullptr : &m_requested);

    const fuzz::ListContents after = checkedContents();
    FUZZ_CHECK(after.evict == before.evict && after.requested == before.requested);
    for (int i = 0; i < kPoolSize; ++i) {
      const int32_t state = m_records[i].evict_state;
      if (state == states[i]) continue;
      FUZZ_CHECK(state == 1 || state == 2);
      const auto position = std::find(after.requested.begin(), after.requested.end(), &m_records[i]);
      FUZZ_CHECK(position != after.requested.end() && position - after.requested.begin() < nodes);
    }
  }

  void raiseAlert() {
    const std::string vmId = m_input.ConsumeRandomLengthString(40);
    const std::string jobId = m_input.ConsumeRandomLengthString(24);
    const int code = m_input.ConsumeBool() ? m_input.PickValueInArray({2, 18, 44, 45, 500, 501, 502, 503, 504, 505})
                                           : m_input.ConsumeIntegral<int>();
    const bool nullVm = m_input.ConsumeIntegralInRange(0, 15) == 0;
    const bool nullJob = m_input.ConsumeIntegralInRange(0, 15) == 0;
    FUZZ_CHECK(raise_backup_alert(nullVm ? nullptr : vmId.c_str(), code, nullJob ? nullptr : jobId.c_str()) == 0);
  }

  FuzzedDataProvider& m_input;
  std::array<evict_vm_info, kPoolSize> m_records;
  std::vector<evict_vm_info*> m_pool;
  evict_vm_list* m_evictList = nullptr;
  vm_node_list* m_requested = nullptr;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  fake::resetPlatform();
  fuzz::scriptPlatform(input);
  Engine engine(input);
  for (int steps = 0; steps < kMaxSteps && input.remaining_bytes() > 0; ++steps) engine.step();
  return 0;
}
