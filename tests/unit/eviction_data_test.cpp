#include <gtest/gtest.h>
#include <kscdp/eviction_data.h>

#include <algorithm>
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
    delete_evlist(m_list);
    delete_from_vm_list(&m_requested);
    EXPECT_EQ(fake::allocator.live, 0);
  }

  evict_vm_info* vm(uint64_t size) {
    m_vms.emplace_back();
    std::memset(&m_vms.back(), 0, sizeof(evict_vm_info));
    m_vms.back().vm_size = size;
    return &m_vms.back();
  }

  std::deque<evict_vm_info> m_vms;  // stable addresses
  evict_vm_list* m_list = nullptr;
  vm_node_list* m_requested = nullptr;
};

// A full list refuses a VM, an empty one a removal.
TEST_F(EvictionListTest, EqualSizesLeaveTheEarlierInsertOnTop) {
  ASSERT_EQ(initialize_evlist(&m_list, 4), 0);
  for (uint64_t size : {5, 9, 9, 1}) EXPECT_EQ(insert_vm_into_evlist(m_list, vm(size)), 0);
  EXPECT_EQ(insert_vm_into_evlist(m_list, vm(UINT64_MAX)), 1);
  std::vector<evict_vm_info*> order;
  for (evict_vm_info* top; (top = get_element_from_evlist(m_list)) != nullptr; order.push_back(top)) {
    EXPECT_EQ(remove_vm_from_evlist(m_list), 0);
  }
  EXPECT_EQ(remove_vm_from_evlist(m_list), 2);
  EXPECT_EQ(order, (std::vector<evict_vm_info*>{&m_vms[1], &m_vms[2], &m_vms[0], &m_vms[3]}));
}

// The list is a heap in array form: after every change no VM is larger than
// the one in its parent slot, and a drain gives every VM once, largest first.
TEST_F(EvictionListTest, EveryChangeKeepsNoVmLargerThanItsParent) {
  const int kVms = 40;
  ASSERT_EQ(initialize_evlist(&m_list, kVms), 0);
  const auto heapHolds = [this] {
    for (int i = 1; i < m_list->count; ++i) {
      if (m_list->vms[i]->vm_size > m_list->vms[(i - 1) / 2]->vm_size) return false;
    }
    return true;
  };
  uint64_t random = 7;  // sizes from a fixed sequence, with repeats and with the top bit set
  for (int i = 0; i < kVms; ++i) {
    random = random * 6364136223846793005ULL + 1442695040888963407ULL;
    ASSERT_EQ(insert_vm_into_evlist(m_list, vm(random >> 58 << 58)), 0);
    ASSERT_TRUE(heapHolds()) << "insert " << i;
  }
  for (const int index : {0, 5, 17, 39, 40}) {  // a VM that shrank moves down; 40 is past the end
    if (index < m_list->count) m_list->vms[index]->vm_size /= 4;
    EXPECT_EQ(realign_element_in_vm_list(m_list, index), 0);
    ASSERT_TRUE(heapHolds()) << "realign " << index;
  }
  std::vector<evict_vm_info*> drained;
  for (uint64_t previous = UINT64_MAX; m_list->count > 0; previous = drained.back()->vm_size) {
    drained.push_back(get_element_from_evlist(m_list));
    EXPECT_LE(drained.back()->vm_size, previous);
    EXPECT_EQ(remove_vm_from_evlist(m_list), 0);
    ASSERT_TRUE(heapHolds()) << "remove " << drained.size();
  }
  std::sort(drained.begin(), drained.end());
  EXPECT_EQ(std::unique(drained.begin(), drained.end()) - drained.begin(), kVms);
}

// After a removal the slot past the last VM still holds the VM that moved
// to the top; here it is as large as the VM it stayed above.
TEST_F(EvictionListTest, RealignTakesNothingFromPastTheLastSlot) {
  ASSERT_EQ(initialize_evlist(&m_list, 7), 0);
  for (uint64_t size : {20, 1, 9, 0, 0, 5, 9}) ASSERT_EQ(insert_vm_into_evlist(m_list, vm(size)), 0);
  ASSERT_EQ(remove_vm_from_evlist(m_list), 0);
  m_list->vms[2]->vm_size = 0;
  EXPECT_EQ(realign_element_in_vm_list(m_list, 2), 0);
  EXPECT_EQ(m_list->vms[2]->vm_size, 5u);
  EXPECT_EQ(m_list->vms[5]->vm_size, 0u);
}

TEST_F(EvictionListTest, NullAndEmptyArgumentsGetTheirCodes) {
  ASSERT_EQ(initialize_evlist(&m_list, 1), 0);
  EXPECT_EQ(insert_vm_into_evlist(nullptr, vm(1)), -1);
  EXPECT_EQ(insert_vm_into_evlist(m_list, nullptr), -1);
  EXPECT_EQ(get_element_from_evlist(nullptr), nullptr);
  EXPECT_EQ(get_element_from_evlist(m_list), nullptr);
  EXPECT_EQ(remove_vm_from_evlist(nullptr), -1);
  EXPECT_EQ(realign_element_in_vm_list(nullptr, 0), 0);
  EXPECT_EQ(realign_element_in_vm_list(m_list, 5), 0);
  EXPECT_EQ(m_list->count, 0);
  EXPECT_EQ(initialize_evlist(nullptr, 4), -1);
  delete_evlist(nullptr);
  EXPECT_EQ(insert_into_vm_list(&m_requested, nullptr), -1);
  EXPECT_EQ(insert_into_vm_list(nullptr, vm(1)), -1);
  EXPECT_EQ(get_from_vm_list(&m_requested), nullptr);
  EXPECT_EQ(get_from_vm_list(nullptr), nullptr);
  EXPECT_EQ(delete_from_vm_list(nullptr), 0);
  EXPECT_EQ(fake::allocator.callers.size(), 2u);  // the list's own two blocks
  delete_evlist(m_list);
  ASSERT_EQ(initialize_evlist(&m_list, 0), 0);  // a list without slots
  EXPECT_EQ(insert_vm_into_evlist(m_list, vm(1)), 1);
  EXPECT_EQ(remove_vm_from_evlist(m_list), 2);
}

// The allocator's bookkeeping learns which list function took and gave back
// each block.
TEST_F(EvictionListTest, EveryBlockNamesTheListFunctionThatTookOrReleasedIt) {
  ASSERT_EQ(initialize_evlist(&m_list, 1), 0);
  ASSERT_EQ(insert_into_vm_list(&m_requested, vm(1)), 0);
  ASSERT_EQ(insert_into_vm_list(&m_requested, vm(2)), 0);
  get_from_vm_list(&m_requested);
  delete_from_vm_list(&m_requested);
  delete_evlist(m_list);
  m_list = nullptr;
  EXPECT_EQ(fake::allocator.callers, (std::vector<std::string>{"initialize_evlist", "initialize_evlist",
                                                               "insert_into_vm_list", "insert_into_vm_list"}));
  EXPECT_EQ(fake::allocator.releases,
            (std::vector<std::string>{"get_from_vm_list", "delete_from_vm_list", "delete_evlist", "delete_evlist"}));
}

TEST_F(EvictionListTest, FailedInitializeLeavesNothingAllocated) {
  for (int failingCall : {1, 2}) {  // the list record, then the slot array
    SCOPED_TRACE(failingCall);
    fake::allocator.failAt = failingCall;
    EXPECT_EQ(initialize_evlist(&m_list, 8), -1);
    EXPECT_EQ(m_list, nullptr);
    EXPECT_EQ(fake::allocator.live, 0);
  }
  EXPECT_EQ(initialize_evlist(&m_list, -1), -1);
  EXPECT_EQ(m_list, nullptr);
}

TEST_F(EvictionListTest, NodeListIsLastInFirstOutAndKeepsItselfWhenANodeCannotBeHad) {
  evict_vm_info* first = vm(1);
  evict_vm_info* second = vm(2);
  ASSERT_EQ(insert_into_vm_list(&m_requested, first), 0);
  ASSERT_EQ(insert_into_vm_list(&m_requested, second), 0);
  fake::allocator.failAt = 1;
  EXPECT_EQ(insert_into_vm_list(&m_requested, vm(3)), 3);
  EXPECT_EQ(get_from_vm_list(&m_requested), second);
  EXPECT_EQ(fake::allocator.live, 1);  // the unlinked node went back
  ASSERT_NE(m_requested, nullptr);
  EXPECT_EQ(m_requested->vm, first);
  EXPECT_EQ(m_requested->next, nullptr);
}

}  // namespace
