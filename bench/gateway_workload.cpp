#include "gateway_workload.h"

#include <cstdio>
#include <stdexcept>

#include "engine/backup_engine.h"
#include "fake_platform.h"

namespace bench {

GatewayWorkload::GatewayWorkload() {
  fake::resetPlatform();
  vm_.vm_size = 64ULL << 30;
  std::snprintf(vm_.vm_id, sizeof vm_.vm_id, "%s", "0123456789abcdef0123456789abcdef");
  std::snprintf(vm_.policy_name, sizeof vm_.policy_name, "%s", "cdp-gold");
  vm_.evict_type = 1;
  if (initialize_evlist(&evictList_, 1) != 0 || insert_vm_into_evlist(evictList_, &vm_) != 0) {
    throw std::runtime_error("cannot build the evict list");
  }
}

GatewayWorkload::~GatewayWorkload() {
  delete_from_vm_list(&requested_);
  delete_evlist(evictList_);
  stop_alert_thread();
}

bool GatewayWorkload::evictOnce() {
  const bool requested = call_evict_data(1, evictList_, &requested_) == 0 && vm_.evict_state == 1;
  get_from_vm_list(&requested_);
  vm_.evict_state = 0;
  return insert_vm_into_evlist(evictList_, &vm_) == 0 && requested;
}

bool GatewayWorkload::alertOnce() {
  const size_t sent = fake::notifications.sent.size();
  raise_backup_alert(vm_.vm_id, 500, "4711");
  return fake::notifications.sent.size() == sent + 1;
}

void GatewayWorkload::forgetRecords() { fake::resetPlatform(); }

}  // namespace bench
