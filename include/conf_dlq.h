/*
 * conf_dlq.h - intrusive doubly linked list.
 *
 * The caller's record embeds a conf_dlq_node_t (as its first member, to convert between the two
 * pointers); the list links the records and owns nothing. A list of zero bytes is an empty list.
 *
 * Threads: nothing is locked. Errors go to the system log, where a function says so.
 */
#ifndef CONF_DLQ_H
#define CONF_DLQ_H

#include "conf_def.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct _conf_dlq_node {
    void *list;                  /* the list that the node is linked into, or null */
    struct _conf_dlq_node *prev; /* null at the head */
    struct _conf_dlq_node *next; /* null at the tail */
} conf_dlq_node_t;

typedef struct _conf_dlq_list {
    u32_t num; /* number of linked nodes */
    conf_dlq_node_t *head;
    conf_dlq_node_t *tail;
} conf_dlq_list_t;

CONF_STATIC_ASSERT(sizeof(conf_dlq_node_t) == 3 * sizeof(void *), "a node is three pointers");
CONF_STATIC_ASSERT(sizeof(conf_dlq_list_t) == 3 * sizeof(void *),
                   "a list is a count and two pointers");

/* Makes `list` empty, whatever it held. Reports a null list. */
void conf_dlq_init(conf_dlq_list_t *list);

/*
 * Calls `free_func` with each node from head to tail, then makes the list empty. The function may
 * release the node. Reports a null argument and leaves the list as it was.
 */
void conf_dlq_free(conf_dlq_list_t *list, void (*free_func)(void *node));

/*
 * Links `node` at the tail. A node that is linked into a list must be removed from it first.
 * Returns 0, or -1 after reporting a null argument.
 */
int conf_dlq_append(conf_dlq_list_t *list, conf_dlq_node_t *node);

/*
 * Links `node` immediately before `pos`, or at the tail when `pos` is null.
 * Returns 0, or -1 after reporting a null list, a null node or a `pos` of another list.
 */
int conf_dlq_insert(conf_dlq_list_t *list, conf_dlq_node_t *pos, conf_dlq_node_t *node);

/* Unlinks `node` and clears its fields. A null argument or a node of another list is ignored. */
void conf_dlq_remove(conf_dlq_list_t *list, conf_dlq_node_t *node);

/* First node, or null for an empty or a null list. Reports nothing. */
conf_dlq_node_t *conf_dlq_head(conf_dlq_list_t *list);

/* The node after `node`, or null at the end or for bad arguments. Reports nothing. */
conf_dlq_node_t *conf_dlq_next(conf_dlq_list_t *list, conf_dlq_node_t *node);

/* Last node, or null; a null list is reported. */
conf_dlq_node_t *conf_dlq_tail(conf_dlq_list_t *list);

/* The node before `node`, or null; a null argument or a node of another list is reported. */
conf_dlq_node_t *conf_dlq_prev(conf_dlq_list_t *list, conf_dlq_node_t *node);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
