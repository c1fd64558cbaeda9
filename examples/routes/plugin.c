/*
 * plugin.c - a plugin that looks after static routes, as the module routes.yang describes them.
 *
 * It takes gateways, routes and preferences from the daemon and tells what it would do, on standard
 * error and in the system log. A route is told by two keys. Preferences have an order that users
 * give; when it changes, the plugin asks the daemon for the new place of what moved. It runs until
 * the daemon is to see it no more (SIGTERM), and a supervisor joins the daemon again when need be.
 *
 * What the module forbids never gets here: a daemon that knows it checks a change before it asks.
 */
#include "conf_supervisor.h"
#include "conf_values.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>

enum { TEXT_SIZE = 128, METRIC_MOST = 1000, METRIC_DEFAULT = 100 };

static econf_supervisor_t *supervisor;

static const char *word_for(int oper)
{
    if ((oper & CONFIG_OP_RM) != 0) {
        return "gone";
    }
    return (oper & CONFIG_OP_ADD) != 0 ? "new" : "changed";
}

static int refuse_path(const char *path)
{
    return econf_plugin_refuse(EINVAL, "path %s lacks a key, or has one that is too long", path);
}

static int on_gateway(int session_id, int oper, int more, int priority, const char *path)
{
    (void)session_id;
    (void)more;
    (void)priority;
    char name[TEXT_SIZE];
    if (econf_path_key(path, "gateway", "name", name, sizeof(name)) != 1) {
        return refuse_path(path);
    }
    syslog(LOG_INFO, "gateway %s: %s", name, word_for(oper));
    return 0;
}

/* The metric of a route, in the configuration that a change leads to; -1 when nobody says it. */
static long long metric_of(int oper, const char *path)
{
    long long metric = METRIC_DEFAULT;
    xmlNode *pulled = NULL;
    if (econf_plugin_pull((oper & CONFIG_OP_ROLLBACK) != 0, path, &pulled) != 0 ||
        econf_node_number(econf_node_child(econf_node_find(pulled, "route"), "metric"), 1,
                          METRIC_MOST, &metric) < 0) {
        metric = -1;
    }
    econf_node_free_list(pulled);
    return metric;
}

static int on_route(int session_id, int oper, int more, int priority, const char *path)
{
    (void)session_id;
    (void)more;
    (void)priority;
    char destination[TEXT_SIZE];
    char next_hop[TEXT_SIZE];
    if (econf_path_key(path, "route", "destination", destination, sizeof(destination)) != 1 ||
        econf_path_key(path, "route", "next-hop", next_hop, sizeof(next_hop)) != 1) {
        return refuse_path(path);
    }
    if ((oper & CONFIG_OP_RM) != 0) {
        syslog(LOG_INFO, "route to %s by %s: gone", destination, next_hop);
        return 0;
    }
    const long long metric = metric_of(oper, path);
    if (metric < 0) {
        return econf_plugin_refuse(EIO, "the metric of the route to %s is unknown", destination);
    }
    syslog(LOG_INFO, "route to %s by %s: %s, metric %lld", destination, next_hop, word_for(oper),
           metric);
    return 0;
}

/* Tells where a preference stands: behind which other one. A change that is taken back leads to the
 * configuration before it. */
static void tell_place(int oper, const char *path, const char *destination)
{
    xmlNode *position = NULL;
    if (econf_plugin_locate((oper & CONFIG_OP_ROLLBACK) != 0, path, &position) != 0) {
        syslog(LOG_WARNING, "preference %s: the daemon does not know its place", destination);
        return;
    }
    const char *previous = NULL;
    char before[TEXT_SIZE];
    if (econf_node_text(econf_node_find(position, "prev"), &previous) == 1 &&
        econf_path_key(previous, "preference", "destination", before, sizeof(before)) == 1) {
        syslog(LOG_INFO, "preference %s: behind %s", destination, before);
    } else {
        syslog(LOG_INFO, "preference %s: first", destination);
    }
    econf_node_free_list(position);
}

static int on_preference(int session_id, int oper, int more, int priority, const char *path)
{
    (void)session_id;
    (void)more;
    (void)priority;
    char destination[TEXT_SIZE];
    if (econf_path_key(path, "preference", "destination", destination, sizeof(destination)) != 1) {
        return refuse_path(path);
    }
    if ((oper & CONFIG_OP_RM) != 0) {
        syslog(LOG_INFO, "preference %s: gone", destination);
        return 0;
    }
    syslog(LOG_INFO, "preference %s: %s", destination,
           (oper & CONFIG_OP_MOVE) != 0 ? "moved" : word_for(oper));
    tell_place(oper, path, destination);
    return 0;
}

/* Every gateway is alive here. */
static int on_probe(int session_id, xmlNode *input, xmlNode **output)
{
    (void)session_id;
    const char *gateway = NULL;
    if (econf_node_text(econf_node_find(input, "gateway"), &gateway) != 1) {
        return econf_plugin_refuse(EINVAL, "probe: the gateway is missing");
    }
    *output = econf_node_build("alive", NULL); /* the library frees it */
    if (*output == NULL) {
        return econf_plugin_refuse(ENOMEM, "probe: no memory for the answer");
    }
    xmlNodeAddContent(*output, (const xmlChar *)"true");
    return 0;
}

static void on_kick_off(void)
{
    syslog(LOG_NOTICE, "kicked off by the daemon");
}

static void on_signal(int signal_number)
{
    (void)signal_number;
    // NOLINTNEXTLINE(bugprone-signal-handler,cert-sig30-c): its header promises that
    econf_supervisor_stop(supervisor);
}

int main(void)
{
    static char gateways[] = "/routes:routing/gateway";
    static char routes[] = "/routes:routing/route";
    static char preferences[] = "/routes:routing/preference";
    static char probe[] = "probe";
    static econf_config_cb_info_t configurations[] = {
        {gateways, 10, on_gateway},
        {routes, 20, on_route},
        {preferences, 30, on_preference},
        {NULL, 0, NULL},
    };
    static econf_operate_cb_info_t operations[] = {{probe, on_probe}, {NULL, NULL}};
    static const econf_plugin_subpub_info_t callbacks = {configurations, NULL, operations,
                                                         on_kick_off};
    openlog("routes", LOG_PERROR, LOG_DAEMON);
    supervisor = econf_supervisor_create("routes", &callbacks, NULL);
    if (supervisor == NULL) {
        syslog(LOG_ERR, "no supervisor: %s", strerror(errno));
        return 1;
    }
    (void)signal(SIGTERM, on_signal);
    (void)signal(SIGINT, on_signal);
    const int result = econf_supervisor_run(supervisor);
    econf_supervisor_destroy(supervisor);
    return result == 0 ? 0 : 1;
}
