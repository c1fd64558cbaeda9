/*
 * link.h - network interfaces of the kernel: make, change, delete, and be told of changes.
 *
 * Speaks rtnetlink(7) over sockets of its own; needs no other program. Functions return 0 or a
 * negative errno value. None of them keeps anything open except link_watch_open().
 */
#ifndef INTERFACES_LINK_H
#define INTERFACES_LINK_H

#include <stdbool.h>

/* Marks the interfaces made here, so that no other is ever deleted; stands in their link group. */
enum { LINK_OWN_GROUP = 0x636f6e66 };

/* Makes a software interface that carries the mark; it is down. */
int link_create(const char *name);

/* Gives the interface an MTU, the text of its alias, and sets it up or down. */
int link_set(const char *name, unsigned mtu, const char *alias, bool up);

int link_delete(const char *name);

/* Whether the error says that this kernel or this user cannot do such things at all. */
bool link_is_forbidden(int error);

/* A non-blocking socket that becomes readable when an interface changes. */
int link_watch_open(void);

/* Takes all that is waiting in the socket; what it said is not looked at. */
void link_watch_drain(int watch);

#endif
