/*
 * eviction_data.h - the records that the engine and libkscdp share, and the
 * functions that build, read and release them.
 *
 * evict_vm_info   one VM; allocated and owned by the engine. The lists below
 *                 only point at it; no list function allocates or frees one.
 * evict_vm_list   the VMs to evict: a max-heap on vm_size (unsigned) in array
 *                 form, the largest VM on top. Owns its slot array.
 * vm_node_list    a singly linked list of requested VMs. The engine holds the
 *                 head pointer and passes its address where the list changes.
 *
 * The layouts are fixed for x86-64 (LP64): the engine is built against them.
 * Result codes: 0 done, -1 null argument (or no memory for a new evict list),
 * 1 list full, 2 list empty, 3 no memory.
 */
#ifndef KSCDP_EVICTION_DATA_H_
#define KSCDP_EVICTION_DATA_H_

#include <stdint.h>

#include "kscdp_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KSCDP_VM_ID_SIZE 33
#define KSCDP_POLICY_NAME_SIZE 259

typedef struct evict_vm_info {
  uint64_t job_id;     /* backup job requested for the VM */
  int32_t evict_state; /* 1 requested, 2 job done; else the engine's value */
  uint64_t vm_size;    /* heap key */
  char vm_id[KSCDP_VM_ID_SIZE];                 /* NUL-terminated */
  char policy_name[KSCDP_POLICY_NAME_SIZE];     /* NUL-terminated */
  int32_t evict_type;  /* the engine's eviction type, passed through */
} evict_vm_info;

typedef struct evict_vm_list {
  int32_t capacity;    /* slots in vms */
  int32_t count;       /* VMs held, 0 <= count <= capacity */
  evict_vm_info** vms; /* heap of capacity slots; slots >= count mean nothing */
} evict_vm_list;

typedef struct vm_node_list {
  evict_vm_info* vm;         /* not owned */
  struct vm_node_list* next; /* null at the end */
} vm_node_list;

/* Creates an empty list of `capacity` slots in *list. 0, or -1 when `list` is
 * null, `capacity` is negative or memory could not be had (*list is then null
 * and nothing stays allocated). */
KSCDP_EXPORT int initialize_evlist(evict_vm_list** list, int capacity);

/* Adds `vm`, keeping the heap; among equal sizes the earlier VM stays nearer
 * the top. 0 inserted, 1 list full (nothing changed), -1 a null argument. */
KSCDP_EXPORT int insert_vm_into_evlist(evict_vm_list* list, evict_vm_info* vm);

/* The top (largest) VM, left in the list; null for a null or empty list. */
KSCDP_EXPORT evict_vm_info* get_element_from_evlist(evict_vm_list* list);

/* Drops the top VM (the record itself is untouched). 0 removed, 2 list empty,
 * -1 null list. */
KSCDP_EXPORT int remove_vm_from_evlist(evict_vm_list* list);

/* Sifts slot `index` down until the heap holds again. Always 0. */
KSCDP_EXPORT int realign_element_in_vm_list(evict_vm_list* list, int index);

/* Releases the list and its slots, not the VMs. A null list is ignored; the
 * caller's pointer is stale afterwards. */
KSCDP_EXPORT void delete_evlist(evict_vm_list* list);

/* Prepends `vm` to the list at *head. 0 inserted, 3 no memory, -1 a null
 * argument. */
KSCDP_EXPORT int insert_into_vm_list(vm_node_list** head, evict_vm_info* vm);

/* Unlinks and releases the first node and returns its VM; null for an empty
 * list or a null head address. */
KSCDP_EXPORT evict_vm_info* get_from_vm_list(vm_node_list** head);

/* Releases every node (not the VMs); *head is null afterwards. Always 0. */
KSCDP_EXPORT int delete_from_vm_list(vm_node_list** head);

#ifdef __cplusplus
}
#endif

#endif /* KSCDP_EVICTION_DATA_H_ */
