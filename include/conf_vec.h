/*
 * conf_vec.h - growable array of pointers with stable indices.
 *
 * An element keeps its index until it is removed; a removed slot is filled by a later add. The
 * array only grows, by doubling. A null pointer marks a free slot and cannot be stored. The vector
 * does not own what the pointers point to.
 *
 * Threads: nothing is locked. Refusals and failures go to the system log.
 */
#ifndef CONF_VEC_H
#define CONF_VEC_H

#include "conf_def.h"

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct _conf_vec_node {
    void *data; /* null for a free slot */
} conf_vec_node_t;

typedef struct _conf_vec {
    u32_t size; /* number of slots, free ones included */
    CONF_FLEXIBLE_ARRAY(conf_vec_node_t, vec);
} conf_vec_t;

CONF_STATIC_ASSERT(sizeof(conf_vec_node_t) == sizeof(void *), "a slot is one pointer");
CONF_STATIC_ASSERT(offsetof(conf_vec_t, vec) == sizeof(void *), "the slots follow the size");

/*
 * Makes a vector of `size` free slots; the caller releases it with conf_vector_destroy().
 * Returns null for a size of 0 and when memory runs out.
 */
conf_vec_t *conf_vector_create(u32_t size);

/*
 * Calls `free_func`, unless it is null, with each element from index 0 upwards, then releases the
 * vector. A null vector is reported.
 */
void conf_vector_destroy(conf_vec_t *vector, void (*free_func)(void *data));

/*
 * Puts `data` into the first free slot, doubling the vector when there is none: then `*vector`
 * changes, and older pointers to the vector are invalid.
 * Returns the index, or -1 for a null argument and when memory runs out; the vector is then as it
 * was.
 */
int conf_vector_add(conf_vec_t **vector, void *data);

/* The element at `idx`: null for a free slot and, reported, for a bad argument. */
void *conf_vector_get(conf_vec_t *vector, u32_t idx);

/* Frees the slot at `idx`; the element is not released. Returns 0, or -1 for a bad argument. */
int conf_vector_remove(conf_vec_t *vector, u32_t idx);

/* The number of slots, free ones included; 0 for a null vector, which is reported. */
int conf_vector_size(conf_vec_t *vector);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
