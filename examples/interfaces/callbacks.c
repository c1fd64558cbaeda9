/*
 * callbacks.c - what the daemon can ask of the plugin, see callbacks.h. The values of a change are
 * read and checked by settings.c, carried out by interface.c; state.c describes interfaces;
 * requests.c asks the daemon for more.
 */
#include "callbacks.h"

#include "interface.h"
#include "link.h"
#include "requests.h"

#include "conf_values.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

bool interfaces_changed = true;

/* Carries the configuration in the element of an interface out. */
static int configure(xmlNode *interface, const char *name)
{
    if (interface == NULL) {
        return refuse(ENOENT, "interface %s: the daemon has no configuration of it", name);
    }
    struct settings wanted;
    const int code = settings_read(interface, name, &wanted);
    return code == 0 ? interface_configure(name, &wanted) : code;
}

void interfaces_joined(void *user)
{
    (void)user;
    syslog(LOG_NOTICE, "joined the daemon");
    interfaces_changed = true;
    xmlNode *pulled = NULL;
    if (econf_plugin_pull(0, "/ietf-interfaces:interfaces", &pulled) != 0) {
        syslog(LOG_ERR, "the daemon does not say its configuration");
        return;
    }
    interface_doubt_all();
    xmlNode *interface = econf_node_child(econf_node_find(pulled, "interfaces"), "interface");
    for (; interface != NULL; interface = econf_node_next(interface, "interface")) {
        const char *name = NULL;
        if (econf_node_text(econf_node_child(interface, "name"), &name) == 1 &&
            settings_check_name(name) == 0 && configure(interface, name) == 0) {
            request_publish_state(name);
        }
    }
    interface_drop_doubtful();
    econf_node_free_list(pulled);
}

/*
 * A change of the configuration. Returning 0 accepts it. When this or another plugin refuses a
 * change, the daemon takes back what was accepted before in the same commit: it sends the opposite
 * change with CONFIG_OP_ROLLBACK, and the values to go back to are then the old ones.
 */
static int on_configuration(int session_id, int oper, int more, int priority, const char *path)
{
    (void)session_id;
    (void)more;
    (void)priority;
    char name[IFNAMSIZ];
    int code = settings_read_name(path, name);
    if (code != 0) {
        return code;
    }
    interfaces_changed = true;
    if ((oper & CONFIG_OP_RM) != 0) {
        return interface_unconfigure(name);
    }

    const int old_values = (oper & CONFIG_OP_ROLLBACK) != 0;
    xmlNode *pulled = NULL;
    if (econf_plugin_pull(old_values, path, &pulled) != 0) {
        return refuse(EIO, "interface %s: the daemon did not say its configuration", name);
    }
    code = configure(econf_node_find(pulled, "interface"), name);
    econf_node_free_list(pulled);
    if (code == 0) {
        request_publish_state(name);
    }
    if (code == 0 && (oper & CONFIG_OP_ADD) != 0) {
        request_place(path);
    }
    return code;
}

/* The list of interfaces with their status; `filter` may name the one that is wanted. */
static int on_status(int session_id, const char *path, const char *filter, xmlNode **status)
{
    (void)session_id;
    (void)path;
    struct link_states states = {NULL, 0, 0};
    xmlNode *list = econf_node_build("interfaces-state", NULL);
    bool made = interface_look(&states) == 0 && list != NULL &&
                xmlNewNs(list, (const xmlChar *)INTERFACES_NAMESPACE, NULL) != NULL;
    for (size_t i = 0; i < states.count && made; ++i) {
        if (filter != NULL && strcmp(filter, states.items[i].name) != 0) {
            continue;
        }
        const struct interface *interface = interface_get(states.items[i].name);
        xmlNode *node = interface == NULL ? NULL : state_xml(&states.items[i], &interface->view);
        made = node != NULL && xmlAddChild(list, node) != NULL;
    }
    free(states.items);
    if (!made) {
        xmlFreeNode(list);
        return refuse(EIO, "the status of the interfaces cannot be read");
    }
    *status = list; /* the library frees it */
    return 0;
}

/* reset-interface-counters: from now on the counters of the interface `name` count from zero. */
static int on_reset_counters(int session_id, xmlNode *input, xmlNode **output)
{
    (void)session_id;
    const char *name = NULL;
    if (econf_node_text(econf_node_find(input, "name"), &name) != 1) {
        return refuse(EINVAL, "reset-interface-counters: the name of the interface is missing");
    }
    time_t since;
    if (interface_reset_counters(name, &since) != 0) {
        return refuse(ENODEV, "reset-interface-counters: there is no interface %.32s", name);
    }

    char text[32];
    state_time_text(since, text);
    *output = xmlNewNode(NULL, (const xmlChar *)"discontinuity-time"); /* the library frees it */
    if (*output == NULL) {
        return refuse(ENOMEM, "reset-interface-counters: no memory for the answer");
    }
    xmlNodeAddContent(*output, (const xmlChar *)text);
    return 0;
}

/* keep-interface: the configuration of the interface `name` goes to the deployment store. */
static int on_keep(int session_id, xmlNode *input, xmlNode **output)
{
    (void)session_id;
    (void)output; /* stays empty: done */
    const char *name = NULL;
    return econf_node_text(econf_node_find(input, "name"), &name) != 1
               ? refuse(EINVAL, "keep-interface: the name of the interface is missing")
               : request_keep(name);
}

static void on_kick_off(void)
{
    syslog(LOG_NOTICE, "kicked off by the daemon");
}

econf_plugin_subpub_info_t *interfaces_callbacks(void)
{
    static char reset_counters[] = "reset-interface-counters";
    static char keep[] = "keep-interface";
    static econf_config_cb_info_t configurations[] = {
        {"/ietf-interfaces:interfaces/interface", 10, on_configuration},
        {NULL, 0, NULL},
    };
    static econf_status_cb_info_t statuses[] = {
        {"/ietf-interfaces:interfaces-state", on_status},
        {NULL, NULL},
    };
    static econf_operate_cb_info_t operations[] = {
        {reset_counters, on_reset_counters},
        {keep, on_keep},
        {NULL, NULL},
    };
    static econf_plugin_subpub_info_t callbacks = {configurations, statuses, operations,
                                                   on_kick_off};
    return &callbacks;
}
