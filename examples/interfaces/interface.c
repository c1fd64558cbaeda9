/*
 * interface.c - see interface.h.
 */
#include "interface.h"

#include "link.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

static struct interface *table;
static bool only_record;
static time_t opened;

void interface_table_open(bool record_only)
{
    only_record = record_only;
    opened = time(NULL);
}

void interface_table_close(void)
{
    while (table != NULL) {
        struct interface *next = table->next;
        free(table);
        table = next;
    }
}

struct interface *interface_find(const char *name)
{
    struct interface *interface = table;
    while (interface != NULL && strcmp(interface->name, name) != 0) {
        interface = interface->next;
    }
    return interface;
}

struct interface *interface_get(const char *name)
{
    struct interface *interface = interface_find(name);
    if (interface == NULL) {
        interface = calloc(1, sizeof(*interface));
        if (interface != NULL) {
            (void)snprintf(interface->name, sizeof(interface->name), "%s", name);
            interface->view.since = opened;
            interface->next = table;
            table = interface;
        }
    }
    return interface;
}

static int set(const char *name, const struct settings *settings)
{
    return link_set(name, settings->mtu, settings->description, settings->enabled);
}

/*
 * Brings the kernel's interface to the wanted settings, or back to those that were configured; what
 * it was before any, nobody knows.
 */
static int carry_out(const struct interface *interface, const struct settings *wanted)
{
    if (only_record) {
        return -EPERM;
    }
    const bool absent = if_nametoindex(interface->name) == 0;
    int error = absent ? link_create(interface->name) : 0;
    if (error != 0) {
        return error;
    }
    error = set(interface->name, wanted);
    if (error != 0 && absent) {
        (void)link_delete(interface->name);
    } else if (error != 0 && interface->configured) {
        (void)set(interface->name, &interface->settings);
    }
    return error;
}

int interface_configure(const char *name, const struct settings *wanted)
{
    struct interface *interface = interface_get(name);
    if (interface == NULL) {
        return refuse(ENOMEM, "interface %s: no memory", name);
    }
    interface->unconfirmed = false;
    const int error = carry_out(interface, wanted);
    if (error != 0 && !link_is_forbidden(error)) {
        return refuse(-error, "interface %s: Linux refuses it: %s", name, strerror(-error));
    }
    interface->settings = *wanted;
    interface->configured = true;
    syslog(LOG_INFO, "%s: %s, mtu %u, \"%s\" %s", name, wanted->enabled ? "up" : "down",
           wanted->mtu, wanted->description,
           error == 0 ? "carried out" : "only recorded: this system has no such interfaces");
    return 0;
}

int interface_unconfigure(const char *name)
{
    /* Interfaces that somebody else made stay as they are; hardware could not be deleted anyway. */
    int error = 0;
    if (!only_record && state_is_own(name)) {
        error = link_delete(name);
    }
    if (error != 0 && error != -ENODEV) {
        return refuse(-error, "interface %s: Linux does not delete it: %s", name, strerror(-error));
    }
    struct interface *interface = interface_find(name);
    if (interface != NULL) {
        interface->configured = false;
    }
    syslog(LOG_INFO, "%s: removed", name);
    return 0;
}

void interface_doubt_all(void)
{
    for (struct interface *each = table; each != NULL; each = each->next) {
        each->unconfirmed = each->configured;
    }
}

void interface_drop_doubtful(void)
{
    struct link_states states = {NULL, 0, 0};
    if (interface_look(&states) != 0) {
        syslog(LOG_ERR, "cannot look for interfaces that are no longer wanted");
    }
    for (size_t i = 0; i < states.count; ++i) {
        const char *name = states.items[i].name;
        const struct interface *interface = interface_find(name);
        const bool is_wanted =
            interface != NULL && interface->configured && !interface->unconfirmed;
        const bool is_ours = state_is_own(name) || (interface != NULL && interface->configured);
        if (is_ours && !is_wanted) {
            (void)interface_unconfigure(name);
        }
    }
    free(states.items);
}

static const struct link_state *state_of(const struct link_states *states, const char *name)
{
    for (size_t i = 0; i < states->count; ++i) {
        if (strcmp(states->items[i].name, name) == 0) {
            return &states->items[i];
        }
    }
    return NULL;
}

int interface_look(struct link_states *states)
{
    const int error = state_read(states);
    if (error != 0) {
        return error;
    }
    for (const struct interface *each = table; each != NULL; each = each->next) {
        if (!each->configured || state_of(states, each->name) != NULL) {
            continue;
        }
        struct link_state *state = state_add(states);
        if (state == NULL) {
            return -ENOMEM;
        }
        memcpy(state->name, each->name, sizeof(state->name));
        memcpy(state->oper_status, "not-present", sizeof("not-present"));
        state->admin_up = each->settings.enabled;
        state->mtu = each->settings.mtu;
    }
    return 0;
}

int interface_reset_counters(const char *name, time_t *since)
{
    struct link_states states = {NULL, 0, 0};
    int error = interface_look(&states);
    if (error == 0) {
        const struct link_state *state = state_of(&states, name);
        struct interface *interface = state == NULL ? NULL : interface_get(name);
        error = state == NULL ? -ENODEV : interface == NULL ? -ENOMEM : 0;
        if (error == 0) {
            memcpy(interface->view.baseline, state->counters, sizeof(state->counters));
            interface->view.since = time(NULL);
            *since = interface->view.since;
        }
    }
    free(states.items);
    return error;
}

static void report_present(const struct link_state *state, bool (*tell)(const struct link_state *))
{
    struct interface *interface = interface_get(state->name);
    if (interface == NULL) {
        return; /* the next look tries again */
    }
    const struct link_state *told = &interface->told;
    const bool same = told->name[0] != '\0' && told->admin_up == state->admin_up &&
                      strcmp(told->oper_status, state->oper_status) == 0;
    if (same || tell(state)) {
        interface->told = *state;
    }
}

/* Tells that the interface is gone. Returns whether it can be forgotten. */
static bool report_gone(const struct interface *interface, bool (*tell)(const struct link_state *))
{
    if (interface->told.name[0] == '\0') {
        return true;
    }
    struct link_state gone;
    memset(&gone, 0, sizeof(gone));
    memcpy(gone.name, interface->name, sizeof(gone.name));
    memcpy(gone.oper_status, "not-present", sizeof("not-present"));
    return tell(&gone);
}

void interface_report(const struct link_states *states, bool (*tell)(const struct link_state *))
{
    for (size_t i = 0; i < states->count; ++i) {
        report_present(&states->items[i], tell);
    }
    struct interface **link = &table;
    while (*link != NULL) {
        struct interface *interface = *link;
        if (state_of(states, interface->name) == NULL && report_gone(interface, tell)) {
            *link = interface->next;
            free(interface);
        } else {
            link = &interface->next;
        }
    }
}
