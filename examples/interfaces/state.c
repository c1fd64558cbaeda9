/*
 * state.c - see state.h. /proc/net/dev says which interfaces there are, always for the network
 * namespace of the reader; /sys/class/net adds the rest, one small file for each value.
 */
#include "state.h"

#include "link.h"

#include "conf_values.h"

#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The counters of the model, and the columns of /proc/net/dev that hold them. */
static const struct {
    const char *name;
    unsigned column;
} counters[COUNTERS] = {
    {"in-octets", 0},  {"in-multicast-pkts", 7}, {"in-discards", 3}, {"in-errors", 2},
    {"out-octets", 8}, {"out-discards", 11},     {"out-errors", 10},
};
enum { COLUMNS = 16 };

/* The kernel's words for the operational status that differ from those of the model. */
static const struct {
    const char *kernel;
    const char *model;
} oper_words[] = {
    {"notpresent", "not-present"},
    {"lowerlayerdown", "lower-layer-down"},
};

struct link_state *state_add(struct link_states *states)
{
    if (states->count == states->room) {
        const size_t room = states->room == 0 ? 16 : 2 * states->room;
        struct link_state *items = realloc(states->items, room * sizeof(*items));
        if (items == NULL) {
            return NULL;
        }
        states->items = items;
        states->room = room;
    }
    struct link_state *state = &states->items[states->count++];
    memset(state, 0, sizeof(*state));
    return state;
}

/* Reads the one line of a file of the interface, without its end; "" when there is none. */
static void read_attribute(const char *name, const char *attribute, char *text, size_t size)
{
    char path[96];
    (void)snprintf(path, sizeof(path), "/sys/class/net/%s/%s", name, attribute);
    text[0] = '\0';
    FILE *file = fopen(path, "re");
    if (file == NULL) {
        return;
    }
    if (fgets(text, (int)size, file) == NULL) {
        text[0] = '\0';
    }
    text[strcspn(text, "\n")] = '\0';
    (void)fclose(file);
}

static unsigned read_number(const char *name, const char *attribute)
{
    char text[32];
    read_attribute(name, attribute, text, sizeof(text));
    return (unsigned)strtoul(text, NULL, 0); /* base 0: the flags are hexadecimal */
}

bool state_is_own(const char *name)
{
    return read_number(name, "netdev_group") == LINK_OWN_GROUP;
}

static void read_attributes(struct link_state *state)
{
    state->admin_up = (read_number(state->name, "flags") & IFF_UP) != 0;
    state->index = read_number(state->name, "ifindex");
    state->mtu = read_number(state->name, "mtu");
    read_attribute(state->name, "address", state->address, sizeof(state->address));
    read_attribute(state->name, "operstate", state->oper_status, sizeof(state->oper_status));
    for (size_t i = 0; i < sizeof(oper_words) / sizeof(oper_words[0]); ++i) {
        if (strcmp(state->oper_status, oper_words[i].kernel) == 0) {
            (void)snprintf(state->oper_status, sizeof(state->oper_status), "%s",
                           oper_words[i].model);
        }
    }
}

/* Splits a line "  name: number number ..."; the headings have no colon behind a short name. */
static bool parse_line(const char *line, char name[IFNAMSIZ], uint64_t columns[COLUMNS])
{
    const char *start = line + strspn(line, " ");
    const size_t length = strcspn(start, ":");
    if (start[length] != ':' || length == 0 || length >= IFNAMSIZ) {
        return false;
    }
    memcpy(name, start, length);
    name[length] = '\0';

    const char *rest = start + length + 1;
    for (size_t i = 0; i < COLUMNS; ++i) {
        char *end = NULL;
        columns[i] = strtoull(rest, &end, 10);
        if (end == rest) {
            return false;
        }
        rest = end;
    }
    return true;
}

int state_read(struct link_states *states)
{
    FILE *file = fopen("/proc/net/dev", "re");
    if (file == NULL) {
        return -errno;
    }
    char line[512];
    int error = 0;
    while (error == 0 && fgets(line, sizeof(line), file) != NULL) {
        char name[IFNAMSIZ];
        uint64_t columns[COLUMNS];
        if (!parse_line(line, name, columns)) {
            continue;
        }
        struct link_state *state = state_add(states);
        if (state == NULL) {
            error = -ENOMEM;
            break;
        }
        memcpy(state->name, name, sizeof(name));
        for (size_t i = 0; i < COUNTERS; ++i) {
            state->counters[i] = columns[counters[i].column];
        }
        read_attributes(state);
    }
    if (error == 0 && ferror(file)) {
        error = -EIO;
    }
    (void)fclose(file);
    return error;
}

void state_time_text(time_t time, char text[32])
{
    struct tm parts;
    text[0] = '\0';
    if (gmtime_r(&time, &parts) != NULL) {
        (void)strftime(text, 32, "%Y-%m-%dT%H:%M:%SZ", &parts);
    }
}

xmlNode *state_brief_xml(const char *element, const struct link_state *state)
{
    const char *oper_status = state->oper_status[0] == '\0' ? "unknown" : state->oper_status;
    return econf_node_build(element, "name", state->name, "admin-status",
                            state->admin_up ? "up" : "down", "oper-status", oper_status, NULL);
}

static bool add_statistics(xmlNode *parent, const struct link_state *state,
                           const struct counters_view *view)
{
    xmlNode *statistics = econf_node_add(parent, "statistics", NULL);
    char since[32];
    state_time_text(view->since, since);
    bool added = econf_node_add(statistics, "discontinuity-time", "%s", since) != NULL;
    for (size_t i = 0; i < COUNTERS && added; ++i) {
        /* A counter below its baseline was set back by the kernel, so all of it is new. */
        const uint64_t value = state->counters[i];
        const uint64_t base = value < view->baseline[i] ? 0 : view->baseline[i];
        added = econf_node_add(statistics, counters[i].name, "%" PRIu64, value - base) != NULL;
    }
    return added;
}

xmlNode *state_xml(const struct link_state *state, const struct counters_view *view)
{
    xmlNode *node = state_brief_xml("interface", state);
    const bool made =
        (state->index == 0 || econf_node_add(node, "if-index", "%u", state->index) != NULL) &&
        (state->address[0] == '\0' ||
         econf_node_add(node, "phys-address", "%s", state->address) != NULL) &&
        (state->mtu == 0 || econf_node_add(node, "mtu", "%u", state->mtu) != NULL) &&
        add_statistics(node, state, view);
    if (!made) {
        xmlFreeNode(node);
        return NULL;
    }
    return node;
}
