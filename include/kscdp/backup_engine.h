/*
 * backup_engine.h - the engine's four calls into libkscdp.
 *
 * Include it as <kscdp/backup_engine.h>; it includes eviction_data.h, the
 * records and list functions the calls work on.
 *
 * Results: every call returns an int; none lets an error escape as anything
 * else (no exception, no abort). Failures are also logged. The codes:
 *   KSCDP_OK                0  done
 *   KSCDP_ERR_BAD_REQUEST  20  a request the library cannot work on: a null
 *                              list, an evict list that ran out of VMs
 *   KSCDP_ERR_DAEMON       25  the request daemon refused or failed a request
 *   KSCDP_ERR_BAD_ANSWER  130  an answer that cannot be parsed (also: no
 *                              answer, a job the server never knew)
 *   KSCDP_ERR_NO_MASTER  8775  the master configuration could not be read or
 *                              names no master server
 *   KSCDP_ERR_INTERNAL     -1  the master configuration names no master
 *                              server (REST client), or an unexpected
 *                              failure such as no memory
 *   other positive values      an errno value from reading the master
 *                              configuration: ENOENT, EACCES, ..., EINVAL for
 *                              a line that is not "key = value"
 * KSCDP_ERR_DAEMON and KSCDP_ERR_NO_MASTER are met per VM by call_evict_data,
 * which logs them and raises alert 44 for the VM instead of returning them.
 *
 * Threads: any mix of the four calls, and of the list functions on distinct
 * lists, may run on any number of threads at once. The library's guards are
 * short (reading and copying the configuration, making and tearing down its
 * process-wide objects) and never held across a network exchange or a pause,
 * so one thread's slow master does not hold up another's call. A list that
 * two threads use at once, in a call or a list function, must be guarded by
 * the engine.
 *
 * Cancellation: each of the four calls holds off the calling thread's
 * cancellation (pthread_setcancelstate) for its length and then restores the
 * caller's state. A thread cancelled inside a call finishes the call, with
 * nothing left held or half done, and acts on the cancellation at its next
 * cancellation point in the engine's code.
 *
 * fork: a forked child starts with no publisher of its own. Its first alert
 * makes one, and its stop_alert_thread waits for that one; the parent's
 * publisher, its outbox, connection and thread stay the parent's, untouched
 * by the child. The child's publisher sends what the child raises, and its
 * accepted alerts are as durable as its parent's: when the parent had the
 * outbox open, the child keeps those the broker has not yet acknowledged in a
 * file of its own beside it, which the outbox's owner sends once the child
 * has ended (or when the owner stops, or the next owner opens the outbox).
 * fork() waits until no other thread is inside the library's short guards.
 *
 * Unloading: when the library is unloaded (dlclose) or the process exits
 * with an alert publisher that no stop_alert_thread took down, the publisher
 * waits up to about 1 s for the alerts in flight to be acknowledged and ends
 * its thread, so that none of the library's code runs once it is unmapped.
 * What the broker has not acknowledged by then stays in the outbox and goes
 * out from the next publisher, in the next load or the next process (without
 * an outbox it is lost, and logged). After stop_alert_thread, unloading has
 * nothing to stop. No engine thread may be inside a call while the library
 * is unloaded.
 *
 * Configuration and log: the master configuration is read afresh from
 * $KEEPSTONE_CONF (default /etc/keepstone/keepstone.conf, keepstone.conf(5))
 * whenever a value is needed; log lines go to $KSU_LOG_FILE, else stderr.
 */
#ifndef KSCDP_BACKUP_ENGINE_H_
#define KSCDP_BACKUP_ENGINE_H_

#include "eviction_data.h"
#include "kscdp_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KSCDP_ERR_BAD_REQUEST 20
#define KSCDP_ERR_DAEMON 25
#define KSCDP_ERR_BAD_ANSWER 130
#define KSCDP_ERR_NO_MASTER 8775
#define KSCDP_ERR_INTERNAL (-1)

/* raise_backup_alert - publishes one alert to the master's message broker.
 *   vm_id       the VM the alert is about (ignored for codes 2 and 45);
 *               must not be null
 *   alert_code  2 storage high-water mark, 18 I/O error, 44 eviction failed,
 *               45 no space, 500 eviction started, 501 full sync started,
 *               502 resumed, 503 done, 504 suspended, 505 partial image
 *               generated; an unknown code publishes an event with no
 *               message key and no attributes
 *   job_id      the decimal job id, used with code 500 only; pass "" when
 *               there is none; must not be null
 * The alert is queued for the publisher's own thread, which the first alert
 * starts; the call does not wait for the broker. An alert that runs out of
 * memory is raised again, three times in all. Returns KSCDP_OK always: a
 * null string or a refused alert (queue full) is logged, not reported. */
KSCDP_EXPORT int raise_backup_alert(const char* vm_id, int alert_code, const char* job_id);

/* call_evict_data - requests a manual backup for the top VM of an evict
 * list, once per pass, largest VM first.
 *   passes      the number of passes (the engine passes the number of VMs in
 *               the list); 0 or less requests nothing
 *   evict_list  the evict list
 *   requested   address of the requested-VM list's head pointer (in and out)
 * Each requested VM gets its job_id and evict_state 1, leaves the evict list
 * and is prepended to *requested, and alert 500 is raised for it. A VM whose
 * request failed (KSCDP_ERR_DAEMON, KSCDP_ERR_NO_MASTER, ...) is logged,
 * gets alert 44 and stays on top, so the next pass asks for it again.
 * Blocks for one request-daemon exchange per pass (each at most the
 * configured http_timeout).
 * Returns KSCDP_OK when every pass ran; KSCDP_ERR_BAD_REQUEST when
 * `requested` is null (nothing requested) or the evict list is null or ran
 * out of VMs (the passes before stay done); an errno value or
 * KSCDP_ERR_INTERNAL when the master configuration is unusable (nothing
 * requested); KSCDP_ERR_INTERNAL for an unexpected failure. */
KSCDP_EXPORT int call_evict_data(int passes, evict_vm_list* evict_list, vm_node_list** requested);

/* call_check_eviction_progress - asks the master's REST jobs interface about
 * the job of each requested VM.
 *   nodes      how many nodes of the list to poll, from the front; 0 or less
 *              polls nothing
 *   requested  address of the requested-VM list's head pointer; the list is
 *              not changed, a node without a VM is skipped
 * Sets each polled VM's evict_state to 2 when its job is DONE, else to 1.
 * While the server does not know a job yet it asks again after 3 s: per job
 * up to five requests (each at most http_timeout) and 15 s of pauses.
 * Returns KSCDP_OK; KSCDP_ERR_BAD_REQUEST when `requested` is null;
 * KSCDP_ERR_BAD_ANSWER when an answer cannot be parsed (no answer, a job
 * still unknown after five requests, a body that is not a job); an errno
 * value or KSCDP_ERR_INTERNAL when the master configuration is unusable;
 * KSCDP_ERR_INTERNAL for an unexpected failure. A failure stops the walk:
 * VMs polled before it keep their new state, later ones their old one. */
KSCDP_EXPORT int call_check_eviction_progress(int nodes, vm_node_list** requested);

/* stop_alert_thread - shuts the alert publisher down.
 * Waits about 5 s at most for the broker to acknowledge the alerts still
 * waiting, then disconnects and ends the publisher's thread. Without a
 * publisher it does nothing; a later alert starts a new one. Returns
 * KSCDP_OK always. */
KSCDP_EXPORT int stop_alert_thread(void);

#ifdef __cplusplus
}
#endif

#endif /* KSCDP_BACKUP_ENGINE_H_ */
