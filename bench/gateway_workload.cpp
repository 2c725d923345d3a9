#include "gateway_workload.h"

#include <kscdp/backup_engine.h>

#include <cstdio>
#include <stdexcept>

#include "fake_platform.h"

namespace bench {

GatewayWorkload::GatewayWorkload() {
  fake::resetPlatform();
  m_vm.vm_size = 64ULL << 30;
  std::snprintf(m_vm.vm_id, sizeof m_vm.vm_id, "%s", "0123456789abcdef0123456789abcdef");
  std::snprintf(m_vm.policy_name, sizeof m_vm.policy_name, "%s", "cdp-gold");
  m_vm.evict_type = 1;
  if (initialize_evlist(&m_evictList, 1) != 0 || insert_vm_into_evlist(m_evictList, &m_vm) != 0) {
    throw std::runtime_error("cannot build the evict list");
  }
}

GatewayWorkload::~GatewayWorkload() {
  delete_from_vm_list(&m_requested);
  delete_evlist(m_evictList);
  stop_alert_thread();
}

bool GatewayWorkload::evictOnce() {
  const bool requested = call_evict_data(1, m_evictList, &m_requested) == 0 && m_vm.evict_state == 1;
  get_from_vm_list(&m_requested);
  m_vm.evict_state = 0;
  return insert_vm_into_evlist(m_evictList, &m_vm) == 0 && requested;
}

bool GatewayWorkload::alertOnce() {
  const size_t sent = fake::notifications.sent.size();
  raise_backup_alert(m_vm.vm_id, 500, "4711");
  return fake::notifications.sent.size() == sent + 1;
}

void GatewayWorkload::forgetRecords() { fake::resetPlatform(); }

}  // namespace bench
