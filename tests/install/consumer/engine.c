/* An engine built against an installed libkscdp: the headers as
 * <kscdp/...> in C99, the records' layout, the result-code macros, and a
 * call that runs through libkscdp.so into the platform library it needs at
 * run time. */
#include <kscdp/backup_engine.h>
#include <kscdp/release_string.h>
#include <stdio.h>
#include <string.h>

int main(void) {
  evict_vm_info vm;
  evict_vm_list* list = NULL;
  int failures = 0;

  failures += sizeof(evict_vm_info) != 320 || sizeof(evict_vm_list) != 16 || sizeof(vm_node_list) != 16;
  memset(&vm, 0, sizeof vm);
  failures += initialize_evlist(&list, 1) != KSCDP_OK;
  failures += insert_vm_into_evlist(list, &vm) != KSCDP_OK;
  failures += insert_vm_into_evlist(list, &vm) != KSCDP_LIST_FULL;
  delete_evlist(list);
  failures += call_check_eviction_progress(1, NULL) != KSCDP_ERR_BAD_REQUEST;
  failures += strncmp(KS_STATIC_RELEASE_STR, "\n@(#) Keepstone_", 16) != 0;
  if (failures != 0) fprintf(stderr, "engine: %d checks failed\n", failures);
  return failures != 0;
}
