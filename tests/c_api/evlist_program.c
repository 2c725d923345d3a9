/* A C99 engine against the built library: the public headers compile as C99,
 * the layout is the engine's, and the list functions link and work. The list
 * rules themselves are the unit tests'. */
#include <stdio.h>
#include <string.h>

#include "backup_engine.h"
#include "release_string.h"

#define CHECK(condition)                                                              \
  do {                                                                                \
    if (!(condition)) {                                                               \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      return 1;                                                                       \
    }                                                                                 \
  } while (0)

int main(void) {
  evict_vm_info small, large;
  evict_vm_list* list = NULL;
  vm_node_list* requested = NULL;

  CHECK(sizeof(evict_vm_info) == 320 && sizeof(evict_vm_list) == 16 && sizeof(vm_node_list) == 16);
  CHECK(strncmp(KS_STATIC_RELEASE_STR, "\n@(#) Keepstone_", 16) == 0);

  memset(&small, 0, sizeof small);
  memset(&large, 0, sizeof large);
  small.vm_size = 10;
  large.vm_size = 30;
  CHECK(initialize_evlist(&list, 2) == 0);
  CHECK(insert_vm_into_evlist(list, &small) == 0 && insert_vm_into_evlist(list, &large) == 0);
  CHECK(insert_vm_into_evlist(list, &small) == 1);
  CHECK(get_element_from_evlist(list) == &large);
  CHECK(insert_into_vm_list(&requested, &large) == 0 && remove_vm_from_evlist(list) == 0);
  CHECK(get_from_vm_list(&requested) == &large && requested == NULL);
  CHECK(delete_from_vm_list(&requested) == 0);
  delete_evlist(list);
  return 0;
}
