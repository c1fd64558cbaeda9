/*
 * settings.h - what the configuration says about one interface: read, checked, refused.
 */
#ifndef INTERFACES_SETTINGS_H
#define INTERFACES_SETTINGS_H

#include <libxml/tree.h>
#include <net/if.h>
#include <stdbool.h>

struct settings {
    bool enabled;
    unsigned mtu;
    char description[256];
};

/* Whether Linux can have an interface of that name: 0, or the code of the error recorded. */
int settings_check_name(const char *name);

/*
 * Takes the interface's name out of a path such as /ietf-interfaces:interfaces/interface[name=eth0]
 * and checks it. Returns 0, or the code of the error that it has recorded.
 */
int settings_read_name(const char *path, char name[IFNAMSIZ]);

/*
 * Reads the settings of the interface from its element; what is not configured gets its default.
 * Returns 0, or the code of the error that it has recorded.
 */
int settings_read(xmlNode *interface, const char *name, struct settings *settings);

/*
 * Logs an error, and records it for the answer to the request being handled, if one is. Returns
 * `code`, which is never 0, so that a callback can end with: return refuse(EINVAL, "...");
 */
__attribute__((format(printf, 2, 3))) int refuse(int code, const char *format, ...);

#endif
