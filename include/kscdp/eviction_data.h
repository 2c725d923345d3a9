/*
 * eviction_data.h - the records that the engine and libkscdp share, and the
 * nine functions that build, read and release them.
 *
 * Include it as <kscdp/eviction_data.h> (backup_engine.h includes it).
 *
 * evict_vm_info   one VM; allocated and owned by the engine. The lists below
 *                 only point at it; no list function allocates or frees one.
 * evict_vm_list   the VMs to evict: a max-heap on vm_size (unsigned) in array
 *                 form, the largest VM on top. Owns its slot array.
 * vm_node_list    a singly linked list of requested VMs. The engine holds the
 *                 head pointer (null when empty) and passes its address where
 *                 the list changes. Each node belongs to the list.
 *
 * The layouts are fixed for x86-64 (LP64): the engine is built against them.
 * List memory comes from the platform's allocator and goes back to it.
 *
 * Threads: the list functions keep no state of their own; any number of
 * threads may work on distinct lists at once. A list used by two threads at
 * once (including by a call of backup_engine.h that was given it) must be
 * guarded by the engine. The list functions never block and log nothing.
 */
#ifndef KSCDP_EVICTION_DATA_H_
#define KSCDP_EVICTION_DATA_H_

#include <stdint.h>

#include "kscdp_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Results of the list functions. */
#define KSCDP_OK 0             /* done */
#define KSCDP_LIST_NULL (-1)   /* a null argument, or no memory for a new evict list */
#define KSCDP_LIST_FULL 1      /* evict list full: nothing changed */
#define KSCDP_LIST_EMPTY 2     /* evict list empty: nothing changed */
#define KSCDP_LIST_NO_MEMORY 3 /* no memory for a node: nothing changed */

#define KSCDP_VM_ID_SIZE 33
#define KSCDP_POLICY_NAME_SIZE 259

typedef struct evict_vm_info {
  uint64_t job_id;                          /* backup job requested for the VM */
  int32_t evict_state;                      /* 1 requested, 2 job done; else the engine's value */
  uint64_t vm_size;                         /* heap key */
  char vm_id[KSCDP_VM_ID_SIZE];             /* NUL-terminated */
  char policy_name[KSCDP_POLICY_NAME_SIZE]; /* NUL-terminated */
  int32_t evict_type;                       /* the engine's eviction type, passed through */
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

/* initialize_evlist - creates an empty evict list.
 *   list      where the new list is stored; *list is null when it fails
 *   capacity  number of slots (VMs it can hold); 0 gives a list that is
 *             always full
 * Returns KSCDP_OK, or KSCDP_LIST_NULL when `list` is null, `capacity` is
 * negative or memory could not be had (nothing stays allocated). Release the
 * list with delete_evlist. */
KSCDP_EXPORT int initialize_evlist(evict_vm_list** list, int capacity);

/* insert_vm_into_evlist - adds a VM to an evict list, keeping the heap.
 *   list  the evict list
 *   vm    the VM; the list points at it, so it must outlive its stay there
 * Among equal sizes the VM inserted first stays nearer the top. The list
 * never grows. Returns KSCDP_OK, KSCDP_LIST_FULL when count equals capacity
 * (nothing changed), or KSCDP_LIST_NULL when `list` or `vm` is null. */
KSCDP_EXPORT int insert_vm_into_evlist(evict_vm_list* list, evict_vm_info* vm);

/* get_element_from_evlist - the top (largest) VM of an evict list.
 *   list  the evict list; the VM stays in it
 * Returns the VM, or null when `list` is null or the list is empty. */
KSCDP_EXPORT evict_vm_info* get_element_from_evlist(evict_vm_list* list);

/* remove_vm_from_evlist - drops the top VM of an evict list.
 *   list  the evict list
 * The VM record itself is untouched. Returns KSCDP_OK, KSCDP_LIST_EMPTY
 * when there is no VM, or KSCDP_LIST_NULL when `list` is null. */
KSCDP_EXPORT int remove_vm_from_evlist(evict_vm_list* list);

/* realign_element_in_vm_list - restores the heap below one slot.
 *   list   the evict list
 *   index  the slot whose VM moves down (for example after its vm_size was
 *          made smaller)
 * A null list, or an index outside 0 to count - 1, changes nothing.
 * Returns KSCDP_OK always. */
KSCDP_EXPORT int realign_element_in_vm_list(evict_vm_list* list, int index);

/* delete_evlist - releases an evict list and its slots, not the VMs.
 *   list  the evict list; null is ignored. The caller's pointer is stale
 *         afterwards. */
KSCDP_EXPORT void delete_evlist(evict_vm_list* list);

/* insert_into_vm_list - prepends a VM to a requested-VM list.
 *   head  address of the list's head pointer (the pointer may be null: an
 *         empty list); the head becomes the new node
 *   vm    the VM; the node points at it
 * Returns KSCDP_OK, KSCDP_LIST_NO_MEMORY when no node could be had (nothing
 * changed), or KSCDP_LIST_NULL when `head` or `vm` is null. */
KSCDP_EXPORT int insert_into_vm_list(vm_node_list** head, evict_vm_info* vm);

/* get_from_vm_list - takes the first VM off a requested-VM list.
 *   head  address of the list's head pointer
 * Unlinks and releases the first node. Returns its VM, or null when the list
 * is empty or `head` is null. */
KSCDP_EXPORT evict_vm_info* get_from_vm_list(vm_node_list** head);

/* delete_from_vm_list - releases every node of a requested-VM list, not the
 * VMs.
 *   head  address of the list's head pointer; *head is null afterwards. A
 *         null `head` is ignored.
 * Returns KSCDP_OK always. */
KSCDP_EXPORT int delete_from_vm_list(vm_node_list** head);

#ifdef __cplusplus
}
#endif

#endif /* KSCDP_EVICTION_DATA_H_ */
