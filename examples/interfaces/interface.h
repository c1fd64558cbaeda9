/*
 * interface.h - what the plugin remembers of each interface, and how configuration is carried out.
 *
 * An interface is remembered while it is configured or exists in the kernel. When the kernel does
 * not let this process make or change interfaces, the configuration is only recorded, and the
 * interface appears as configured but not present.
 */
#ifndef INTERFACES_INTERFACE_H
#define INTERFACES_INTERFACE_H

#include "settings.h"
#include "state.h"

struct interface {
    struct interface *next;
    char name[IFNAMSIZ];
    bool configured;          /* `settings` are valid */
    bool unconfirmed;         /* see interface_doubt_all() */
    struct settings settings; /* as carried out, or recorded */
    struct link_state told;   /* the state last made known; its name is empty at first */
    struct counters_view view;
};

/* Sets the table up. With `record_only` nothing in the kernel is ever changed. */
void interface_table_open(bool record_only);
void interface_table_close(void);

/* The entry of that name, or null. */
struct interface *interface_find(const char *name);

/* The same, made when it is missing; null when memory runs out. */
struct interface *interface_get(const char *name);

/*
 * Carry a change of the configuration out, or record it. Return 0, or the code of the error that
 * they have recorded for the daemon; then everything is as before.
 */
int interface_configure(const char *name, const struct settings *wanted);
int interface_unconfigure(const char *name);

/*
 * For a comparison with the whole configuration. The first doubts all that is configured; what
 * interface_configure() is called for is doubted no more; the second unconfigures the rest, and
 * interfaces in the kernel that were made in an earlier run and nobody wants now.
 */
void interface_doubt_all(void);
void interface_drop_doubtful(void);

/*
 * Makes the counters of an existing interface count from zero, and says since when. Returns 0 or a
 * negative errno value.
 */
int interface_reset_counters(const char *name, time_t *since);

/*
 * Reads the state of every interface, configured ones that do not exist included. Returns 0 or a
 * negative errno value; the items are the caller's in both cases.
 */
int interface_look(struct link_states *states);

/*
 * Compares what interface_look() saw with what was told before, and calls `tell` for each
 * difference in the status; an interface that is gone has the status "not-present". What `tell`
 * does not return true for is told again the next time.
 */
void interface_report(const struct link_states *states, bool (*tell)(const struct link_state *));

#endif
