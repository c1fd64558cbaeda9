/*
 * plugin.c - a plugin that looks after the network interfaces of a Linux device.
 *
 *     interfaces-plugin [--record-only]
 *
 * It takes the configuration of interfaces from the daemon and carries it out (interface.c),
 * answers for their status (state.c), sets the view of their counters back when asked to, and
 * notifies the daemon when the status of an interface changes. It runs until it is told to end, by
 * SIGTERM, SIGINT or the daemon's kick-off, and joins the daemon again when that has been away.
 * Interfaces that it made stay when it ends.
 *
 * One thread, one loop, four callbacks. Messages go to the system log and to standard error.
 */
#include "interface.h"
#include "link.h"

#include "conf_api.h"
#include "conf_misc.h"

#include <errno.h>
#include <libxml/parser.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <syslog.h>
#include <unistd.h>

enum { REJOIN_MILLISECONDS = 2000 };

static bool leaving;           /* the loop ends */
static bool look_again = true; /* something may have changed the status of an interface */

/* ---- Callbacks ----------------------------------------------------------------------------- */

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
    look_again = true;
    if ((oper & CONFIG_OP_RM) != 0) {
        return interface_unconfigure(name);
    }

    const int old_values = (oper & CONFIG_OP_ROLLBACK) != 0;
    xmlNode *pulled = NULL;
    if (econf_plugin_pull(old_values, path, &pulled) != 0) {
        return refuse(EIO, "interface %s: the daemon did not say its configuration", name);
    }
    struct settings wanted;
    code = settings_read(pulled, name, &wanted);
    xmlFreeNodeList(pulled);
    return code != 0 ? code : interface_configure(name, &wanted);
}

/* The list of interfaces with their status; `filter` may name the one that is wanted. */
static int on_status(int session_id, const char *path, const char *filter, xmlNode **status)
{
    (void)session_id;
    (void)path;
    struct link_states states = {NULL, 0, 0};
    xmlNode *list = xmlNewNode(NULL, (const xmlChar *)"interfaces-state");
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

/* The text of the input element of that name, or null. */
static const char *input_text(xmlNode *input, const char *name)
{
    for (xmlNode *node = input; node != NULL; node = node->next) {
        if (node->type == XML_ELEMENT_NODE && xmlStrEqual(node->name, (const xmlChar *)name)) {
            return conf_get_node_content(node);
        }
    }
    return NULL;
}

/* reset-interface-counters: from now on the counters of the interface `name` count from zero. */
static int on_reset_counters(int session_id, xmlNode *input, xmlNode **output)
{
    (void)session_id;
    const char *name = input_text(input, "name");
    if (name == NULL) {
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

static void on_kick_off(void)
{
    syslog(LOG_NOTICE, "kicked off by the daemon");
    leaving = true; /* the answer still goes out */
}

/* ---- The daemon ---------------------------------------------------------------------------- */

/* Registers and activates. Returns the socket to watch, or -1 when the daemon is not there. */
static int join_daemon(void)
{
    static char reset_counters[] = "reset-interface-counters";
    econf_config_cb_info_t configurations[] = {
        {"/ietf-interfaces:interfaces/interface", 10, on_configuration},
        {NULL, 0, NULL},
    };
    econf_status_cb_info_t statuses[] = {
        {"/ietf-interfaces:interfaces-state", on_status},
        {NULL, NULL},
    };
    econf_operate_cb_info_t operations[] = {
        {reset_counters, on_reset_counters},
        {NULL, NULL},
    };
    econf_plugin_subpub_info_t plugin = {configurations, statuses, operations, on_kick_off};

    const int sock = econf_plugin_init("interfaces", &plugin);
    if (sock < 0) {
        return -1;
    }
    /*
     * The configuration that is in force already now arrives like changes. What left it while the
     * daemon was away is not told, and stays as it is.
     */
    if (econf_plugin_activate(ACTIVATE_WITH_CFGR) != 0) {
        econf_plugin_close();
        return -1;
    }
    syslog(LOG_NOTICE, "joined the daemon");
    return sock;
}

static bool notify_daemon(const struct link_state *state)
{
    xmlNode *change = state_brief_xml("interface-state-change", state);
    const bool sent = change != NULL &&
                      xmlNewNs(change, (const xmlChar *)INTERFACES_NAMESPACE, NULL) != NULL &&
                      econf_notify("interface-state-change", change) == 0;
    xmlFreeNode(change);
    return sent;
}

/* What was there before the plugin began is no news. */
static bool notify_nobody(const struct link_state *state)
{
    (void)state;
    return true;
}

static void report_changes(bool (*tell)(const struct link_state *))
{
    struct link_states states = {NULL, 0, 0};
    const int error = interface_look(&states);
    if (error == 0) {
        interface_report(&states, tell);
    } else {
        syslog(LOG_ERR, "cannot read the state of the interfaces: %s", strerror(-error));
    }
    free(states.items);
}

/* ---- The loop ------------------------------------------------------------------------------ */

static int serve(int signals, int changes)
{
    enum { DAEMON, CHANGES, SIGNALS, SOURCES };
    int sock = -1;
    while (!leaving) {
        if (sock < 0) {
            sock = join_daemon();
            look_again = true; /* something may have changed while the daemon was away */
        }
        if (sock >= 0 && look_again) {
            look_again = false;
            report_changes(notify_daemon);
        }

        struct pollfd sources[SOURCES] = {
            [DAEMON] = {.fd = sock, .events = POLLIN | POLLRDHUP}, /* -1 is passed over */
            [CHANGES] = {.fd = changes, .events = POLLIN},
            [SIGNALS] = {.fd = signals, .events = POLLIN},
        };
        if (poll(sources, SOURCES, sock < 0 ? REJOIN_MILLISECONDS : -1) < 0 && errno != EINTR) {
            syslog(LOG_ERR, "cannot wait: %s", strerror(errno));
            return -1;
        }
        if (sources[SIGNALS].revents != 0) {
            leaving = true;
        }
        if (sources[CHANGES].revents != 0) {
            link_watch_drain(changes);
            look_again = true;
        }
        if ((sources[DAEMON].revents & POLLIN) != 0) {
            econf_plugin_run();
        }
        if ((sources[DAEMON].revents & (POLLHUP | POLLRDHUP | POLLERR)) != 0) {
            syslog(LOG_WARNING, "the daemon has hung up");
            econf_plugin_close();
            sock = -1;
        }
    }
    if (sock >= 0) {
        econf_plugin_close();
    }
    return 0;
}

/* A descriptor that becomes readable when the process is to end, or -1. */
static int watch_signals(void)
{
    sigset_t ending;
    (void)sigemptyset(&ending);
    (void)sigaddset(&ending, SIGTERM);
    (void)sigaddset(&ending, SIGINT);
    if (sigprocmask(SIG_BLOCK, &ending, NULL) != 0) {
        return -1;
    }
    return signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK);
}

int main(int argc, char **argv)
{
    const bool record_only = argc == 2 && strcmp(argv[1], "--record-only") == 0;
    if (argc > 1 && !record_only) {
        (void)fprintf(stderr, "usage: interfaces-plugin [--record-only]\n");
        return 2;
    }
    openlog("interfaces", LOG_PERROR, LOG_DAEMON);

    const int signals = watch_signals();
    if (signals < 0) {
        syslog(LOG_ERR, "cannot watch for signals: %s", strerror(errno));
        return 1;
    }
    const int changes = link_watch_open();
    if (changes < 0) {
        syslog(LOG_WARNING, "cannot watch for changes of links: %s", strerror(-changes));
    }

    interface_table_open(record_only);
    report_changes(notify_nobody);
    const int result = serve(signals, changes);
    interface_table_close();

    if (changes >= 0) {
        (void)close(changes);
    }
    (void)close(signals);
    xmlCleanupParser();
    return result == 0 ? 0 : 1;
}
