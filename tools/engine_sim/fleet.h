// A made-up set of protected VMs, the same for the same seed.
#ifndef KSCDP_TOOLS_ENGINE_SIM_FLEET_H_
#define KSCDP_TOOLS_ENGINE_SIM_FLEET_H_

#include <kscdp/eviction_data.h>

#include <cstdint>
#include <vector>

// `count` zeroed records with a 32-hex-digit vm_id, a size in MiB between
// 8 GiB and 2 TiB, one of a few policies and evict_type 1.
std::vector<evict_vm_info> makeFleet(int count, uint64_t seed);

#endif  // KSCDP_TOOLS_ENGINE_SIM_FLEET_H_
