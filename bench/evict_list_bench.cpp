// The engine's evict list through libkscdp.so: one million VMs inserted, then
// read off the top and removed until the list is empty; against
// std::priority_queue holding the same records in the same order under the
// same max-heap on vm_size.
#include <benchmark/benchmark.h>
#include <kscdp/eviction_data.h>

#include <cstdint>
#include <memory>
#include <queue>
#include <random>
#include <vector>

namespace {

const int kVmCount = 1000000;

struct SmallerVm {
  bool operator()(const evict_vm_info* a, const evict_vm_info* b) const { return a->vm_size < b->vm_size; }
};
using VmQueue = std::priority_queue<evict_vm_info*, std::vector<evict_vm_info*>, SmallerVm>;

// The engine's records with sizes up to 1 TiB drawn with a fixed seed, and the
// order in which both contenders take them.
struct Fleet {
  std::unique_ptr<evict_vm_info[]> records{new evict_vm_info[kVmCount]()};
  std::vector<evict_vm_info*> order;

  Fleet() {
    std::mt19937_64 random(20240601);
    std::uniform_int_distribution<uint64_t> size(1, uint64_t{1} << 40);
    order.reserve(kVmCount);
    for (int i = 0; i < kVmCount; ++i) {
      records[i].vm_size = size(random);
      order.push_back(&records[i]);
    }
  }
};

const Fleet& fleet() {
  static const Fleet instance;
  return instance;
}

void EvictList(benchmark::State& state) {
  const std::vector<evict_vm_info*>& order = fleet().order;
  for (auto _ : state) {
    evict_vm_list* list = nullptr;
    if (initialize_evlist(&list, kVmCount) != 0) {
      state.SkipWithError("initialize_evlist failed");
      break;
    }
    for (evict_vm_info* vm : order) insert_vm_into_evlist(list, vm);
    uint64_t previous = UINT64_MAX;
    bool ordered = true;
    while (evict_vm_info* top = get_element_from_evlist(list)) {
      ordered = ordered && top->vm_size <= previous;
      previous = top->vm_size;
      remove_vm_from_evlist(list);
    }
    delete_evlist(list);
    if (!ordered) {
      state.SkipWithError("the evict list did not drain largest first");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kVmCount);
}

void PriorityQueue(benchmark::State& state) {
  const std::vector<evict_vm_info*>& order = fleet().order;
  for (auto _ : state) {
    std::vector<evict_vm_info*> slots;
    slots.reserve(kVmCount);
    VmQueue queue(SmallerVm(), std::move(slots));
    for (evict_vm_info* vm : order) queue.push(vm);
    uint64_t previous = UINT64_MAX;
    bool ordered = true;
    while (!queue.empty()) {
      const evict_vm_info* top = queue.top();
      ordered = ordered && top->vm_size <= previous;
      previous = top->vm_size;
      queue.pop();
    }
    if (!ordered) {
      state.SkipWithError("the priority queue did not drain largest first");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kVmCount);
}

// Several repetitions (run.sh interleaves them), so that a busy neighbour on
// the machine slows both contenders alike; the summary compares medians.
BENCHMARK(EvictList)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(PriorityQueue)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
