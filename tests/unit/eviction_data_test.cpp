#include "engine/eviction_data.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "fake_platform.h"

namespace {

class EvictionListTest : public ::testing::Test {
 protected:
  void SetUp() override { fake::resetPlatform(); }
  void TearDown() override {
    delete_evlist(list_);
    delete_from_vm_list(&requested_);
    EXPECT_EQ(fake::liveAllocations(), 0);
  }

  evict_vm_info* vm(uint64_t size) {
    vms_.emplace_back();
    evict_vm_info& record = vms_.back();
    std::memset(&record, 0, sizeof record);
    record.vm_size = size;
    return &record;
  }

  void fill(int capacity, const std::vector<uint64_t>& sizes) {
    ASSERT_EQ(initialize_evlist(&list_, capacity), 0);
    for (uint64_t size : sizes) ASSERT_EQ(insert_vm_into_evlist(list_, vm(size)), 0);
  }

  // Removes every VM, returning the records in the order they came off the top.
  std::vector<evict_vm_info*> drain() {
    std::vector<evict_vm_info*> order;
    while (evict_vm_info* top = get_element_from_evlist(list_)) {
      order.push_back(top);
      EXPECT_EQ(remove_vm_from_evlist(list_), 0);
    }
    return order;
  }

  std::deque<evict_vm_info> vms_;  // stable addresses
  evict_vm_list* list_ = nullptr;
  vm_node_list* requested_ = nullptr;
};

TEST_F(EvictionListTest, EqualSizesLeaveTheEarlierInsertOnTop) {
  fill(4, {5, 9, 9, 1});
  evict_vm_info* firstNine = &vms_[1];
  evict_vm_info* secondNine = &vms_[2];
  EXPECT_EQ(get_element_from_evlist(list_), firstNine);
  const std::vector<evict_vm_info*> order = drain();
  EXPECT_EQ(order, (std::vector<evict_vm_info*>{firstNine, secondNine, &vms_[0], &vms_[3]}));
  EXPECT_EQ(remove_vm_from_evlist(list_), 2);
}

TEST_F(EvictionListTest, DrainsInDescendingUnsignedOrder) {
  const std::vector<uint64_t> sizes = {1, (1ULL << 63) + 1, 7, 0, UINT64_MAX, 7, 3, 1ULL << 63, 42};
  fill(static_cast<int>(sizes.size()), sizes);
  std::vector<uint64_t> drained;
  for (evict_vm_info* record : drain()) drained.push_back(record->vm_size);
  EXPECT_EQ(drained, (std::vector<uint64_t>{UINT64_MAX, (1ULL << 63) + 1, 1ULL << 63, 42, 7, 7, 3, 1, 0}));
}

TEST_F(EvictionListTest, KeepsTheHeapOverManyPseudoRandomOperations) {
  ASSERT_EQ(initialize_evlist(&list_, 512), 0);
  uint64_t state = 88172645463325252ULL;
  auto next = [&state] {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
  };
  for (int step = 0; step < 5000; ++step) {
    if (next() % 3 != 0) {
      insert_vm_into_evlist(list_, vm(next() % 64));
    } else {
      remove_vm_from_evlist(list_);
    }
    for (int i = 1; i < list_->count; ++i) {
      ASSERT_GE(list_->vms[(i - 1) / 2]->vm_size, list_->vms[i]->vm_size) << "step " << step;
    }
  }
}

TEST_F(EvictionListTest, FullListRefusesAndChangesNothing) {
  fill(2, {1, 2});
  EXPECT_EQ(insert_vm_into_evlist(list_, vm(99)), 1);
  EXPECT_EQ(list_->count, 2);
  EXPECT_EQ(get_element_from_evlist(list_)->vm_size, 2u);
}

TEST_F(EvictionListTest, NullAndEmptyArgumentsGetTheirCodes) {
  fill(1, {});
  EXPECT_EQ(insert_vm_into_evlist(nullptr, vm(1)), -1);
  EXPECT_EQ(insert_vm_into_evlist(list_, nullptr), -1);
  EXPECT_EQ(get_element_from_evlist(nullptr), nullptr);
  EXPECT_EQ(get_element_from_evlist(list_), nullptr);
  EXPECT_EQ(remove_vm_from_evlist(nullptr), -1);
  EXPECT_EQ(remove_vm_from_evlist(list_), 2);
  EXPECT_EQ(list_->count, 0);
  EXPECT_EQ(realign_element_in_vm_list(nullptr, 0), 0);
  EXPECT_EQ(realign_element_in_vm_list(list_, 5), 0);
  EXPECT_EQ(initialize_evlist(nullptr, 4), -1);
  delete_evlist(nullptr);
  const size_t allocations = fake::allocationCalls().size();
  EXPECT_EQ(insert_into_vm_list(&requested_, nullptr), -1);
  EXPECT_EQ(insert_into_vm_list(nullptr, vm(1)), -1);
  EXPECT_EQ(fake::allocationCalls().size(), allocations);
  EXPECT_EQ(get_from_vm_list(&requested_), nullptr);
  EXPECT_EQ(get_from_vm_list(nullptr), nullptr);
  EXPECT_EQ(delete_from_vm_list(&requested_), 0);
  EXPECT_EQ(requested_, nullptr);
  EXPECT_EQ(delete_from_vm_list(nullptr), 0);
}

TEST_F(EvictionListTest, AllocatorIsToldWhoAsks) {
  fill(3, {});
  ASSERT_EQ(insert_into_vm_list(&requested_, vm(1)), 0);
  ASSERT_EQ(fake::allocationCalls().size(), 3u);
  EXPECT_EQ(fake::allocationCalls()[0].caller, "initialize_evlist");
  EXPECT_EQ(fake::allocationCalls()[0].size, sizeof(evict_vm_list));
  EXPECT_EQ(fake::allocationCalls()[1].caller, "initialize_evlist");
  EXPECT_EQ(fake::allocationCalls()[1].size, 3 * sizeof(evict_vm_info*));
  EXPECT_EQ(fake::allocationCalls()[2].caller, "insert_into_vm_list");
  EXPECT_EQ(fake::allocationCalls()[2].size, sizeof(vm_node_list));
  for (const fake::AllocationCall& call : fake::allocationCalls()) EXPECT_GT(call.line, 0);
}

TEST_F(EvictionListTest, FailedInitializeLeavesNothingAllocated) {
  for (int failingCall : {1, 2}) {  // the list record, then the slot array
    SCOPED_TRACE(failingCall);
    fake::resetAllocator();
    fake::failAllocationNumber(failingCall);
    EXPECT_EQ(initialize_evlist(&list_, 8), -1);
    EXPECT_EQ(list_, nullptr);
    EXPECT_EQ(fake::liveAllocations(), 0);
  }
  EXPECT_EQ(initialize_evlist(&list_, -1), -1);
  EXPECT_EQ(list_, nullptr);
}

TEST_F(EvictionListTest, NodeAllocationFailureLeavesTheListAlone) {
  evict_vm_info* first = vm(1);
  ASSERT_EQ(insert_into_vm_list(&requested_, first), 0);
  fake::failAllocationNumber(1);
  EXPECT_EQ(insert_into_vm_list(&requested_, vm(2)), 3);
  ASSERT_NE(requested_, nullptr);
  EXPECT_EQ(requested_->vm, first);
  EXPECT_EQ(requested_->next, nullptr);
}

TEST_F(EvictionListTest, NodeListIsLastInFirstOut) {
  evict_vm_info* a = vm(1);
  evict_vm_info* b = vm(2);
  evict_vm_info* c = vm(3);
  for (evict_vm_info* record : {c, b, a}) ASSERT_EQ(insert_into_vm_list(&requested_, record), 0);
  EXPECT_EQ(get_from_vm_list(&requested_), a);
  ASSERT_NE(requested_, nullptr);
  EXPECT_EQ(requested_->vm, b);
  EXPECT_EQ(fake::liveAllocations(), 2);  // the unlinked node went back
  EXPECT_EQ(delete_from_vm_list(&requested_), 0);
  EXPECT_EQ(requested_, nullptr);
  EXPECT_EQ(c->vm_size, 3u);  // the records are the engine's and stay
}

}  // namespace
