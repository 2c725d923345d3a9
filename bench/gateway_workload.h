// One eviction pass and one alert through the gateway over the fake platform:
// what the gateway benchmark times and the callgrind driver counts.
#ifndef KSCDP_BENCH_GATEWAY_WORKLOAD_H_
#define KSCDP_BENCH_GATEWAY_WORKLOAD_H_

#include <kscdp/eviction_data.h>

namespace bench {

class GatewayWorkload {
 public:
  // A fresh fake platform and an evict list holding one VM.
  GatewayWorkload();
  // Releases the lists and stops the alert publisher.
  ~GatewayWorkload();
  GatewayWorkload(const GatewayWorkload&) = delete;
  GatewayWorkload& operator=(const GatewayWorkload&) = delete;

  // One eviction pass: the VM's backup is requested and the VM moves to the
  // requested list, from where it goes back to the evict list for the next
  // pass. False when the pass did not request the backup.
  bool evictOnce();
  // One alert: eviction started, with a VM and a job id. False when the
  // publisher did not get the event.
  bool alertOnce();
  // The fake platform records every call; a long run forgets the records now
  // and then, outside what it measures.
  void forgetRecords();

  using Operation = bool (GatewayWorkload::*)();

 private:
  evict_vm_info m_vm{};
  evict_vm_list* m_evictList = nullptr;
  vm_node_list* m_requested = nullptr;
};

}  // namespace bench

#endif  // KSCDP_BENCH_GATEWAY_WORKLOAD_H_
