#include "fleet.h"

#include <cstdio>
#include <cstring>
#include <random>

std::vector<evict_vm_info> makeFleet(int count, uint64_t seed) {
  static const char* const kPolicies[] = {"cdp-gold", "cdp-silver", "cdp-bronze", "cdp-archive"};
  const uint64_t kMiBPerGiB = 1024;
  std::mt19937_64 random(seed);
  std::uniform_int_distribution<uint64_t> sizes(8 * kMiBPerGiB, 2048 * kMiBPerGiB);
  std::uniform_int_distribution<size_t> policies(0, sizeof kPolicies / sizeof kPolicies[0] - 1);

  std::vector<evict_vm_info> fleet(count > 0 ? static_cast<size_t>(count) : 0);
  for (evict_vm_info& vm : fleet) {
    std::memset(&vm, 0, sizeof vm);
    std::snprintf(vm.vm_id, sizeof vm.vm_id, "%016llx%016llx", static_cast<unsigned long long>(random()),
                  static_cast<unsigned long long>(random()));
    vm.vm_size = sizes(random);
    std::snprintf(vm.policy_name, sizeof vm.policy_name, "%s", kPolicies[policies(random)]);
    vm.evict_type = 1;
  }
  return fleet;
}
