/*
 * conf_hash.h - hash table from zero-terminated keys to byte strings.
 *
 * Key and value are copied into one block per entry. The number of buckets is fixed; within a
 * bucket the search is linear.
 *
 * Threads: nothing is locked. Refusals and failures go to the system log.
 */
#ifndef CONF_HASH_H
#define CONF_HASH_H

#include "conf_dlq.h"

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct _conf_hash_tbl {
    u32_t num;                                     /* number of buckets */
    u32_t seed;                                    /* multiplier of the hash function */
    CONF_FLEXIBLE_ARRAY(conf_dlq_list_t, buckets); /* the entries of each bucket */
} conf_hash_tbl_t;

/* An entry: the key bytes follow the record directly, and the value bytes follow the key. */
typedef struct _conf_hash_node {
    conf_dlq_node_t dlq; /* links the entry into its bucket */
    u32_t k_len;         /* length of the key, its terminating zero byte included */
    u32_t v_len;         /* length of the value */
} conf_hash_node_t;

CONF_STATIC_ASSERT(offsetof(conf_hash_tbl_t, buckets) == 8, "the buckets follow two counts");
CONF_STATIC_ASSERT(sizeof(conf_hash_node_t) == 3 * sizeof(void *) + 8,
                   "an entry begins with a list node and two lengths");

/*
 * Makes a table of `bucket_num` empty buckets; the caller releases it with conf_hash_destroy().
 * Returns null for 0 buckets, for more than fit the address space and when memory runs out.
 */
conf_hash_tbl_t *conf_hash_create(u32_t bucket_num);

/*
 * Releases the table itself. Entries still in it are not visited: delete them by key first.
 * A null table is ignored.
 */
void conf_hash_destroy(conf_hash_tbl_t *hash_tbl);

/*
 * Stores a copy of `key` and of `v_len` bytes of `val`, in place of an entry with the same key.
 * A null argument is refused, also with a length of 0.
 * Both may lie in the entry that they replace; unless the length stays, there is memory for both
 * entries until the old one is freed.
 * Returns 0, or -1 when memory runs out and when key and value together exceed 32 bits. When that
 * happens while an entry is replaced by a value of another length, the key is absent afterwards.
 */
int conf_hash_add(conf_hash_tbl_t *hash_tbl, char *key, void *val, u32_t v_len);

/*
 * The value stored under `key`, or null. It lies inside the entry, at any alignment, and stays
 * valid until the entry is deleted or replaced by a value of another length.
 */
void *conf_hash_get(conf_hash_tbl_t *hash_tbl, char *key);

/* Deletes the entry stored under `key`, if any. */
void conf_hash_del(conf_hash_tbl_t *hash_tbl, char *key);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
