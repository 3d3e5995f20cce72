/*
 * Containers: hash table, vector, linked list and an ordered map (B-tree).
 *
 * Every function answers 1 for success and 0 for failure and writes a detail
 * code through its last argument; each family has its own codes, listed with
 * it. A null detail pointer is allowed: the call then does not report its
 * detail. Keys are counted strings whose bytes are the caller's: the
 * containers store the pointer, never a copy, so a key's bytes must stay valid
 * and unchanged for as long as the entry holding it exists. No container
 * locks: use one from one thread at a time or under your own lock.
 */
#ifndef ZEL_CONTAINERS_H
#define ZEL_CONTAINERS_H

#include <stdint.h>
#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ======================================================================== */
/* Hash table: counted-string keys to pointer values, chained, doubling.
 * Details: 0 success, 1 null handle, 3 invalid argument (null key, empty
 * key, null output, unknown hash name), 4 key not found or end of iteration,
 * 5 handle already open, 6 releasing memory failed, and the allocator's
 * codes. Plain C names. */

typedef struct sZELHashParams {
    int32_t size;       /* initial buckets wanted (rounded up to a power of two; <= 0: 16) */
    sPChar hash_name;   /* "hash_ejb", "hash_phong" (= "hash_sdbm") or "hashr_torek";
                           a prefix selects the first name it begins */
    void *mem_context;  /* handed to the allocator */
} sZELHashParams;

typedef struct sZELHashMeters {
    uint32_t adds;              /* new keys added */
    uint32_t adds_since_clear;  /* new keys added since the last clear */
    uint32_t occupied_buckets;
    uint32_t free_buckets;
    uint32_t collisions;        /* adds into a bucket that already held keys */
    uint32_t lowest_bucket;     /* lowest occupied bucket index */
    uint32_t deletes;
    uint32_t doublings;
    uint32_t replaces;          /* adds of a key already present */
} sZELHashMeters;

int zel_hash_open(void **handle, sZELHashParams *p, int *err);
/* Frees every entry and the table; nulls `*handle`. */
int zel_hash_close(void **handle, int *err);
/* Frees every entry; the table stays open with its bucket count. */
int zel_hash_clear(void *h, int *err);
/* Adds `key` -> `value`, or replaces the value of a key with the same bytes. */
int zel_hash_add(void *h, sPChar *key, void *value, int *err);
/* Removes the entry of `key` (exact bytes) and hands back its value. */
int zel_hash_delete(void *h, sPChar *key, void **value_out, int *err);
/* Finds `key`, comparing its bytes ASCII case-insensitively with the entries
 * of its bucket only: a key that differs in case from the one added is found
 * only when both fall into the same bucket. Not found: detail 4. */
int zel_hash_table_find(void *h, sPChar *key, void **value_out, int *err);
/* Iterate over every entry: first, then next until detail 4. Adding or
 * deleting during an iteration ends it (the next call answers 4). Either
 * output may be null. */
int zel_hash_first_item(void *h, sPChar *key_out, void **value_out, int *err);
int zel_hash_next_item(void *h, sPChar *key_out, void **value_out, int *err);
int zel_hash_meters(void *h, sZELHashMeters *out, int *err);

/* ======================================================================== */
/* Linked list of (key, item) pairs with a cursor: delete, re-key and re-item
 * act on the node the last iteration call returned. Details: 0 success,
 * 1 null list (or a cleared list, see list_clear_nodes), 2 already open,
 * 4 empty, not found or end of iteration, 5 invalid argument, -1 a free
 * failed. Plain C names. */

/* `flag` must be non-zero (pass 1). */
int linklist_open(void **handle, long flag, int *err);
int linklist_close(void **handle, int *err);
int list_add_node(void *list, sPChar *key, void *item, int *err);
int list_add_node_at_begin(void *list, sPChar *key, void *item, int *err);
/* Frees every node. The list keeps no usable nodes afterwards and may only be
 * closed: every other call on it answers 0 with detail 1. */
int list_clear_nodes(void *list, int *err);
/* Copies out the key of the first node whose item is `item`; the cursor
 * stays. */
int list_find_node(void *list, sPChar *key_out, void *item, int *err);
/* Iteration: first sets the cursor to the head, next moves it on; at the end
 * the call answers 4 and iteration stops. Outputs may be null. */
int list_first_node(void *list, sPChar *key_out, void **item_out, int *err);
int list_next_node(void *list, sPChar *key_out, void **item_out, int *err);
/* Iteration over the nodes whose key has exactly these bytes. */
int list_matching_first_node(void *list, sPChar *key, void **item_out, int *err);
int list_matching_next_node(void *list, sPChar *key, void **item_out, int *err);
/* Removes the cursor node. Removing the head or an inner node lets
 * list_next_node go on with the node that followed it; removing the tail ends
 * the iteration. */
int list_delete_node(void *list, sPChar *key_out, void **item_out, int *err);
int list_set_key(void *list, sPChar *old_key_out, sPChar *new_key, int *err);
int list_set_item(void *list, void **old_item_out, void *new_item, int *err);
/* Number of nodes; 0 for a null or cleared list. */
int list_node_count(void *list);

#ifdef __cplusplus
} /* extern "C" */

/* ======================================================================== */
/* Vector of fixed-size elements stored by value (C++ linkage). Elements are
 * handed out as pointers into the array: valid until the next insertion that
 * grows the array or a deletion that shifts it. Growth is linear, by the
 * initial capacity. Details (this family's own): 1 success, 2 empty or
 * iteration not started or finished, 3 the array could not grow, 4 invalid
 * argument or index out of range, 7 null handle, 9 handle already open. */

struct sZELVecParams {
    void *user;          /* returned by zel_vec_get_info */
    int32_t initial;     /* initial capacity and growth step; 0 means 4 */
    int32_t elem_size;   /* bytes per element; must be positive */
};

struct sZELVecInfocb {
    void *user;
    int32_t elem_size;
    int32_t step;
    int32_t count;
    uint32_t adds;       /* the head of the meters, as it stands */
};

struct sZELVecMeterscb {
    uint32_t adds;
    uint32_t deletes;
    uint32_t reserved;
    uint32_t grows;
    uint32_t clears;
    uint64_t memory;     /* element size x capacity + 64 */
};

int zel_vec_open(void **handle, sZELVecParams *p, int *err);
int zel_vec_close(void **handle, int *err);
int zel_vec_add(void *v, void *elem, int *err);
/* Inserts before `index` (0..count). */
int zel_vec_add_at(void *v, void *elem, int index, int *err);
/* Appends and hands back the element's address and index. */
int zel_vec_add_get(void *v, void *elem, void **where, int *index, int *err);
int zel_vec_del(void *v, int *err);
int zel_vec_del_at(void *v, int index, int *err);
int zel_vec_del_first(void *v, int *err);
/* Removes elements from..to inclusive. */
int zel_vec_del_seq(void *v, int from, int to, int *err);
int zel_vec_clear(void *v, int *err);
int zel_vec_get(void *v, void **out, int index, int *err);
/* Cursor iteration: first, then next; past the end next answers 4 and the
 * cursor is reset, after which next answers 2. */
int zel_vec_first(void *v, void **out, int *err);
int zel_vec_next(void *v, void **out, int *err);
int zel_vec_last(void *v, void **out, int *err);
/* Index of the element at `elem` (4 when `elem` is not at an element's start;
 * the range is not checked). */
int zel_vec_get_index(void *v, void *elem, int *index, int *err);
int zel_vec_get_array(void *v, void **array, int *count, int *err);
int zel_vec_get_count(void *v, int *count, int *err);
int zel_vec_get_info(void *v, sZELVecInfocb *out, int *err);
int zel_vec_get_meters(void *v, sZELVecMeterscb *out, int *err);
int zel_vec_reset_meters(void *v, int *err);

/* ======================================================================== */
/* Ordered map from counted-string keys to pointer values (C++ linkage): a
 * hash table for exact lookup plus a doubly linked list in key order.
 * Details (this family's own): 1 success, 2 not found, empty, or the end of a
 * traversal, 4 invalid argument (null tree, key or value; empty key; in
 * mode 0 a key whose first byte is 0x80 or above), 5 the comparison
 * function answered something else than 1, 2 or 3, 9 handle already open or
 * key already present, 10 the inner hash table failed. */

/* A node as traversals hand it out: the tree's own record, read-only. */
struct sZELBtreeKeycb {
    char *key;
    int32_t key_len;
    void *value;
    sZELBtreeKeycb *next;
    sZELBtreeKeycb *prev;
};

/* The caller's ordering (mode non-zero): compares `key` with the node's key
 * and writes 1 when equal, 2 when `key` orders before it, 3 after it. */
typedef int (*zel_btree_compare_fn)(sPChar *key, sZELBtreeKeycb *node, int *result, int *err);

struct sZELBtreeParams {
    int32_t user1, user2;          /* kept for the caller */
    int32_t mode;                  /* 0: byte order (strcmp), partitioned by
                                      first byte; else: `compare` */
    void *user3, *user4;           /* kept for the caller */
    zel_btree_compare_fn compare;
};

struct sZELBtreeInfocb {
    int32_t user1, user2;
    int32_t mode;
    void *user3, *user4;
    uint32_t items;
};

struct sZELBtreeMeterscb {
    uint32_t items;
    uint32_t inserts;
    uint32_t deletes;
    uint32_t finds;
    uint32_t duplicates;           /* inserts refused for a key already present */
};

int zel_btree_open(void **handle, sZELBtreeParams *p, int *err);
int zel_btree_close(void **handle, int *err);
int zel_btree_delete_all(void *t, int *err);
int zel_btree_insert_item(void *t, sPChar *key, void *value, int *err);
int zel_btree_delete_item(void *t, sPChar *key, void **value_out, int *err);
/* Exact lookup through the hash table (see zel_hash_table_find for case). */
int zel_btree_find_key(void *t, sPChar *key, void **value_out, int *err);
/* Ordered traversal by key: first and last write the key found into `*key`;
 * next and prev read the current key from `*key` and replace it with the
 * neighbour's. The end of the order answers 2. */
int zel_btree_find_first_key(void *t, sPChar *key, void **value_out, int *err);
int zel_btree_find_last_key(void *t, sPChar *key, void **value_out, int *err);
int zel_btree_find_next_key(void *t, sPChar *key, void **value_out, int *err);
int zel_btree_find_prev_key(void *t, sPChar *key, void **value_out, int *err);
/* The first key not less than `key`, and the last key less than `key`. */
int zel_btree_find_first_key_not_less_than(void *t, sPChar *key, sPChar *found_key, void **value_out, int *err);
int zel_btree_find_next_key_less_than(void *t, sPChar *key, sPChar *found_key, void **value_out, int *err);
/* Node-wise traversal in key order: first, then next from the node given. */
int zel_btree_find_first_node(void *t, sZELBtreeKeycb **node, int *err);
int zel_btree_find_next_node(void *t, sZELBtreeKeycb **node, int *err);
int zel_btree_get_info(void *t, sZELBtreeInfocb *out, int *err);
int zel_btree_get_meters(void *t, sZELBtreeMeterscb *out, int *err);
/* Zeroes the counters other than `items`. */
int zel_btree_reset_meters(void *t, int *err);

#endif /* __cplusplus */

#endif /* ZEL_CONTAINERS_H */
