/*
 * state.h - the interfaces as they really are, read from /proc/net/dev and /sys/class/net, and
 * written as XML.
 */
#ifndef INTERFACES_STATE_H
#define INTERFACES_STATE_H

#include <libxml/tree.h>
#include <net/if.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#define INTERFACES_NAMESPACE "urn:ietf:params:xml:ns:yang:ietf-interfaces"

enum { COUNTERS = 7 };

struct link_state {
    char name[IFNAMSIZ];
    bool admin_up;
    char oper_status[24];
    unsigned index; /* 0: not present */
    unsigned mtu;
    char address[64]; /* of the hardware; "" for none */
    uint64_t counters[COUNTERS];
};

/* Begins all zero; grows as states are added; its items are released with free(). */
struct link_states {
    struct link_state *items;
    size_t count;
    size_t room;
};

/* A new item, all zero, or null when memory runs out. */
struct link_state *state_add(struct link_states *states);

/* Adds an item for every interface of the kernel. Returns 0 or a negative errno value. */
int state_read(struct link_states *states);

/* Whether the interface was made by this plugin, now or in an earlier run. */
bool state_is_own(const char *name);

/* How far back the counters count: what they showed at that time, and the time. */
struct counters_view {
    uint64_t baseline[COUNTERS];
    time_t since;
};

/* Text of a time as the models want it: 2025-01-31T08:30:00Z. */
void state_time_text(time_t time, char text[32]);

/* An element of that name with the state's name and status inside, or null. */
xmlNode *state_brief_xml(const char *element, const struct link_state *state);

/* The element "interface" with all of the state inside, or null. */
xmlNode *state_xml(const struct link_state *state, const struct counters_view *view);

#endif
