/*
 * requests.c - see requests.h.
 */
#include "requests.h"

#include "interface.h"

#include "conf_api.h"
#include "conf_values.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

enum { PATH_SIZE = 128, DEPLOYMENT_UPDATE = 2 };

static xmlNode *state_of(const char *name)
{
    struct link_states states = {NULL, 0, 0};
    xmlNode *node = NULL;
    if (interface_look(&states) == 0) {
        for (size_t i = 0; i < states.count && node == NULL; ++i) {
            const struct interface *interface = interface_find(name);
            if (strcmp(states.items[i].name, name) == 0 && interface != NULL) {
                node = state_xml(&states.items[i], &interface->view);
            }
        }
    }
    free(states.items);
    return node;
}

void request_publish_state(const char *name)
{
    char path[PATH_SIZE];
    (void)snprintf(path, sizeof(path), "/ietf-interfaces:interfaces-state/interface[name=\"%s\"]",
                   name);
    xmlNode *state = state_of(name);
    if (state == NULL || econf_plugin_push(path, state) != 0) {
        syslog(LOG_WARNING, "%s: its status could not be published", name);
    }
    xmlFreeNode(state);
}

void request_place(const char *path)
{
    xmlNode *position = NULL;
    if (econf_plugin_locate(0, path, &position) != 0) {
        return; /* a daemon need not know */
    }
    const char *before = NULL;
    if (econf_node_text(econf_node_find(position, "prev"), &before) == 1) {
        syslog(LOG_INFO, "%s stands behind %s", path, before);
    }
    xmlFreeNodeList(position);
}

int request_keep(const char *name)
{
    char path[PATH_SIZE];
    (void)snprintf(path, sizeof(path), "/ietf-interfaces:interfaces/interface[name=\"%s\"]", name);
    xmlNode *configured = NULL;
    if (econf_plugin_pull(0, path, &configured) != 0 || configured == NULL) {
        return refuse(ENOENT, "keep-interface: %.32s is not configured", name);
    }
    const int result = econf_plugin_config_deployment(path, DEPLOYMENT_UPDATE, configured) == 0
                           ? econf_plugin_save_deployment()
                           : -1;
    xmlFreeNodeList(configured);
    return result == 0 ? 0 : refuse(EIO, "keep-interface: the daemon does not keep %.32s", name);
}
