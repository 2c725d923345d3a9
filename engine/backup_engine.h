/*
 * backup_engine.h - the engine's four calls into libkscdp.
 *
 * Call them from one thread at a time. None of them lets an error escape as
 * anything but its result.
 */
#ifndef KSCDP_BACKUP_ENGINE_H_
#define KSCDP_BACKUP_ENGINE_H_

#include "eviction_data.h"
#include "kscdp_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Publishes the alert `alert_code` about the VM `vm_id`. `job_id` (decimal)
 * is used with code 500 only; pass "" when there is none. Both strings must
 * be non-null. Always 0: a failure is logged, never reported. */
KSCDP_EXPORT int raise_backup_alert(const char* vm_id, int alert_code, const char* job_id);

/* Requests a manual backup for the top VM of `evict_list`, `passes` times.
 * Each requested VM gets its job_id and evict_state 1 and moves from the
 * evict list to the front of *requested; a VM whose request failed stays on
 * top. 0 when every pass ran; otherwise the code of the error that stopped
 * it (logged). A null `requested` requests nothing and returns 20. */
KSCDP_EXPORT int call_evict_data(int passes, evict_vm_list* evict_list, vm_node_list** requested);

/* Polls the jobs of the first `nodes` VMs of *requested and sets each VM's
 * evict_state: 2 when its job is DONE, else 1. 0, or the code of the error
 * that stopped the walk (logged); VMs polled before it keep their new state. */
KSCDP_EXPORT int call_check_eviction_progress(int nodes, vm_node_list** requested);

/* Shuts the alert publisher down, delivering what is waiting. Always 0. */
KSCDP_EXPORT int stop_alert_thread(void);

#ifdef __cplusplus
}
#endif

#endif /* KSCDP_BACKUP_ENGINE_H_ */
