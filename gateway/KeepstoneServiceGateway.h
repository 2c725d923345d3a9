// The one way from an engine call to the service layer. Stateless: made per
// engine call, it turns the call into request records, runs them through the
// handlers it gets from the factory and writes results back into the
// engine's records.
#ifndef KSCDP_GATEWAY_KEEPSTONESERVICEGATEWAY_H_
#define KSCDP_GATEWAY_KEEPSTONESERVICEGATEWAY_H_

#include <kscdp/eviction_data.h>

#include <boost/shared_ptr.hpp>
#include <string>

class AlertServiceData;

class KeepstoneServiceGateway {
 public:
  // The master server's host name, read afresh from the master configuration.
  // Throws KSServiceException 8775 when there is none; `name` then keeps its
  // value.
  void getMasterServerName(std::string& name);

  // Fills `record` for the engine's alert code; an unknown code leaves it as
  // it is.
  void setAlertParameters(int alertCode, const std::string& vmId, const std::string& jobId,
                          boost::shared_ptr<AlertServiceData> record);

  // Publishes one alert through the host and alert handlers.
  void raiseAlert(const std::string& vmId, int alertCode, const std::string& jobId);

  // Requests a manual backup for the top VM of `evictList`, `passes` times.
  // A pass that fails is logged and alerted; its VM stays on top. Throws
  // KSServiceException 20 when the list runs out of VMs before the passes do,
  // and before any pass when `requested` is null.
  void requestEviction(int passes, evict_vm_list* evictList, vm_node_list** requested);

  // Sets evict_state of the first `nodes` VMs of *requested: 2 when the job
  // is "DONE", else 1. Throws KSServiceException.
  void getEvictionStatus(int nodes, vm_node_list** requested);
};

#endif  // KSCDP_GATEWAY_KEEPSTONESERVICEGATEWAY_H_
