/* Evicts two VMs, the larger first, and waits until their backups
 * are done: evict_vms [POLL_SECONDS]
 *
 * It ends whatever the master does: one eviction call, one pass per
 * VM, then at most MAX_POLLS polls, POLL_SECONDS (default 10)
 * apart. A VM whose request failed is not asked for again here; the
 * library's log says why, and whether a backup may have started for
 * it all the same. Exit status 0 when every VM's backup is done. */
#include <kscdp/backup_engine.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#define VM_COUNT 2
#define MAX_POLLS 30

int main(int argc, char **argv) {
  evict_vm_info vms[VM_COUNT] = {
      {.vm_size = 10, .vm_id = "vm-a", .policy_name = "gold"},
      {.vm_size = 20, .vm_id = "vm-b", .policy_name = "gold"}};
  unsigned poll_seconds = argc > 1 ? (unsigned)atoi(argv[1]) : 10;
  evict_vm_list *evict = NULL;
  vm_node_list *requested = NULL;
  int asked, done = 0, polls = 0, result = KSCDP_OK, i;

  if (initialize_evlist(&evict, VM_COUNT) != KSCDP_OK) return 1;
  for (i = 0; i < VM_COUNT; i++)
    insert_vm_into_evlist(evict, &vms[i]);
  call_evict_data(VM_COUNT, evict, &requested);
  for (i = 0; i < evict->count; i++)
    printf("%s was not requested\n", evict->vms[i]->vm_id);
  asked = VM_COUNT - evict->count;

  while (done < asked && polls < MAX_POLLS && result == KSCDP_OK) {
    if (polls++ > 0) sleep(poll_seconds);
    result = call_check_eviction_progress(asked, &requested);
    for (done = 0, i = 0; i < VM_COUNT; i++)
      done += vms[i].evict_state == 2;
  }

  if (asked == 0)
    printf("stopped: no VM was requested; see the library's log\n");
  else if (result != KSCDP_OK)
    printf("stopped: a poll failed with code %d\n", result);
  else if (done < asked)
    printf("stopped: %d of %d backups done after %d polls\n", done,
           asked, polls);
  else
    printf("stopped: %d of %d backups done\n", done, asked);
  delete_from_vm_list(&requested);
  delete_evlist(evict);
  stop_alert_thread();
  return done == VM_COUNT ? 0 : 1;
}
