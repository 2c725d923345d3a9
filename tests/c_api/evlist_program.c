/* A C99 engine's use of the list functions, against the built library. */
#include <stdio.h>
#include <string.h>

#include "backup_engine.h"
#include "release_string.h"

#define CHECK(condition)                                              \
  do {                                                                \
    if (!(condition)) {                                               \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, \
              #condition);                                            \
      return 1;                                                       \
    }                                                                 \
  } while (0)

int main(void) {
  evict_vm_info vms[3];
  evict_vm_list* list = NULL;
  vm_node_list* requested = NULL;
  const unsigned long long sizes[3] = {10, 30, 20};
  int i;

  CHECK(sizeof(evict_vm_info) == 320);
  CHECK(strncmp(KS_STATIC_RELEASE_STR, "\n@(#) Keepstone_", 16) == 0);

  memset(vms, 0, sizeof vms);
  CHECK(initialize_evlist(&list, 3) == 0);
  for (i = 0; i < 3; ++i) {
    vms[i].vm_size = sizes[i];
    CHECK(insert_vm_into_evlist(list, &vms[i]) == 0);
  }
  CHECK(insert_vm_into_evlist(list, &vms[0]) == 1);

  /* Largest first, each moved to the requested list. */
  for (i = 0; i < 3; ++i) {
    evict_vm_info* top = get_element_from_evlist(list);
    CHECK(top != NULL);
    CHECK(insert_into_vm_list(&requested, top) == 0);
    CHECK(remove_vm_from_evlist(list) == 0);
  }
  CHECK(remove_vm_from_evlist(list) == 2);
  CHECK(get_element_from_evlist(list) == NULL);

  /* Prepended: the requested list runs 10, 20, 30. */
  CHECK(get_from_vm_list(&requested) == &vms[0]);
  CHECK(requested != NULL && requested->vm == &vms[2]);
  CHECK(delete_from_vm_list(&requested) == 0);
  CHECK(requested == NULL);
  delete_evlist(list);
  return 0;
}
