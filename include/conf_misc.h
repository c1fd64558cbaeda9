/*
 * conf_misc.h - small helpers for descriptors, epoll, XML node text, strings, numbers and time; and
 * the table of remote clients in shared memory.
 *
 * The helpers are reentrant. The descriptor and epoll functions and those of the client table
 * report failures in the system log; the others report nothing.
 */
#ifndef CONF_MISC_H
#define CONF_MISC_H

#include "conf_def.h"

#include <libxml/tree.h>
#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Sets O_NONBLOCK on `fd`. Returns 0; or -1, the descriptor being as it was. */
int conf_non_block_fd(int fd);

/*
 * Adds `fd` to the epoll instance `epfd`, edge-triggered and always watching for the peer's
 * hang-up, for input when bit 0 of `event` is set and for output when bit 1 is set. `para` is
 * handed back in the user data of the events (`data.u32`).
 * Returns 0; or -1 when epoll_ctl() fails, and the instance is as it was.
 */
int conf_event_add(int epfd, int fd, int event, int para);

/* Changes the registration of `fd`; arguments and result as for conf_event_add(). */
int conf_event_reset(int epfd, int fd, int event, int para);

/*
 * The text of an element or attribute: the content of its first child when that is a text node,
 * else null, also for a null node. It belongs to the node and lives as long as its content is not
 * changed.
 *
 * Only a first child that is plain text counts. A CDATA section, and text that stands behind a
 * comment, give null; xmlNodeGetContent() finds them, in a copy. So never let null pass for
 * "absent" where a value is checked.
 */
const char *conf_get_node_content(xmlNode *node);

/*
 * A copy of `str` without the white space around it, to be released with free(). Null when nothing
 * is left, for a null text and when memory runs out.
 */
char *conf_strip(const char *str);

/*
 * Writes `i` in decimal into `buf` of `size` bytes, cut when it does not fit, always terminated.
 * Returns `buf`, which may be null: then nothing happens.
 */
char *conf_itoa(long i, char *buf, unsigned int size);

/* Wall-clock time in microseconds since 1970-01-01 00:00:00 UTC. */
long long conf_get_unix_time(void);

/* ---- Table of remote clients --------------------------------------------------------------- */

/*
 * The table tells which remote client stands behind an SSH daemon process. It lies in System V
 * shared memory under a key made from the file /mnt/squash/local/etc/confd/confd.conf, which must
 * exist; one semaphore serialises all access, across processes, and is given back by the kernel
 * when a process dies while it holds it.
 *
 * One process creates the table and stays attached to it until it destroys it. In every other
 * process each call attaches and detaches. The calls on records may be made from several threads of
 * a process at once; those that create and destroy the table only while no other call runs.
 */

/* A record: the same in memory, in the table and for other programs. */
typedef struct _conf_cli_info {
    int32_t sshd_pid;    /* process id of the SSH daemon process */
    u32_t valid : 1;     /* slot in use; set by the library */
    u32_t ipv6 : 1;      /* the address is an IPv6 address */
    u32_t cli_port : 16; /* remote port */
    u32_t reserved : 14; /* copied, not interpreted */
    u32_t addr_buf[4];   /* remote address as given: IPv4 in the first word, or IPv6 in all four */
} conf_cli_info_t;

CONF_STATIC_ASSERT(sizeof(conf_cli_info_t) == 24, "a client record has 24 bytes");
CONF_STATIC_ASSERT(offsetof(conf_cli_info_t, addr_buf) == 8, "the flags take four bytes");

/*
 * Creates an empty table of `max_num` records.
 * Returns 0; or -1, then no table is left unless `max_num` is less than 1. A table that is there
 * already, perhaps left over from an earlier run, makes the call fail and is removed, so the way to
 * a fresh table is:
 *   1. Call. 0: the table is there.
 *   2. -1: what stood in the way has been removed. Call again.
 *   3. -1 once more: this process knew a table that another process had replaced, and has removed
 *      what it knew of its own first. Call a third time.
 *   4. -1 again: the cause is another one, and the system log names it.
 */
int conf_clishm_create(int max_num);

/*
 * Removes the table, whoever created it; processes that are attached keep their view. A process
 * that still knows a table which another one has replaced removes that one, and the new one in a
 * second call.
 */
void conf_clishm_destroy(void);

/*
 * Copies `info` into the first free record; one process may have several. The caller's `valid` does
 * not matter. A table never counts as larger than its segment, whatever its capacity says.
 * Returns 0, or -1 for null and when the table is full or cannot be reached.
 */
int conf_save_client_info(conf_cli_info_t *info);

/*
 * Copies the first record of `sshd_pid` to `info`.
 * Returns 0, or -1 for null and when there is none or the table cannot be reached; `info` is then
 * as it was.
 */
int conf_get_client_info(pid_t sshd_pid, conf_cli_info_t *info);

/* Frees the first record of `sshd_pid`, if any. */
void conf_free_client_info(pid_t sshd_pid);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
