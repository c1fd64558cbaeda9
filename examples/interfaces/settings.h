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

/*
 * Takes the interface's name out of a path such as /ietf-interfaces:interfaces/interface[name=eth0]
 * and checks it. Returns 0, or the code of the error that it has recorded.
 */
int settings_read_name(const char *path, char name[IFNAMSIZ]);

/*
 * Reads the settings of the interface from a pulled list of nodes; what is not configured gets its
 * default. Returns 0, or the code of the error that it has recorded.
 */
int settings_read(const xmlNode *pulled, const char *name, struct settings *settings);

/*
 * Records the error that the daemon gets in the answer to the request being handled. Returns
 * `code`, which is never 0, so that a callback can end with: return refuse(EINVAL, "...");
 */
__attribute__((format(printf, 2, 3))) int refuse(int code, const char *format, ...);

#endif
