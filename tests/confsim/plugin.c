/*
 * The plugin that the scripts of this directory run against confsim.
 *
 *     confsim_plugin NAME [cfgr|smooth]
 *
 * It accepts every change of /test:system/user (priority 20) and /test:system/log (priority 10)
 * and keeps a journal of them, which it gives out, and empties, as status /test:journal/NAME. A
 * value can ask for more: "refuse" refuses the change, "stall" answers late, "die" ends the
 * process.
 */
#include "conf_api.h"

#include <libxml/tree.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static char journal[65536];

/* The text of the leaf `name` in what the daemon holds at `path`, or "-". */
static void pull_value(int old, const char *path, char *value, size_t size)
{
    xmlNode *list = NULL;
    snprintf(value, size, "-");
    if (econf_plugin_pull(old, path, &list) != 0 || list == NULL) {
        return;
    }
    for (xmlNode *leaf = list->children; leaf != NULL; leaf = leaf->next) {
        if (strcmp((const char *)leaf->name, "value") == 0 && leaf->children != NULL) {
            snprintf(value, size, "%s", (const char *)leaf->children->content);
        }
    }
    xmlFreeNodeList(list);
}

static int on_config(int session_id, int oper, int more, int priority, const char *path)
{
    char value[64];
    char old_value[64];
    const size_t used = strlen(journal);
    (void)session_id;
    pull_value(0, path, value, sizeof value);
    pull_value(1, path, old_value, sizeof old_value);
    snprintf(journal + used, sizeof journal - used, "[oper %x more %d prio %d %s %s was %s]",
             (unsigned)oper, more, priority, path, value, old_value);
    if (strcmp(value, "stall") == 0) {
        sleep(4);
    }
    if (strcmp(value, "die") == 0) {
        _exit(3);
    }
    if (strcmp(value, "refuse") == 0) {
        econf_plugin_error(22, "this value is refused");
        return 1;
    }
    return 0;
}

static int on_status(int session_id, const char *path, const char *filter, xmlNode **status)
{
    char text[sizeof journal + 64];
    (void)session_id;
    (void)path;
    snprintf(text, sizeof text, "filter %s: %s", filter == NULL ? "none" : filter, journal);
    journal[0] = '\0';
    *status = xmlNewNode(NULL, (const xmlChar *)"journal");
    xmlNodeAddContent(*status, (const xmlChar *)text);
    return 0;
}

/* Gives its input back; without input the output stays empty. */
static int on_echo(int session_id, xmlNode *input, xmlNode **output)
{
    (void)session_id;
    *output = xmlCopyNodeList(input);
    return 0;
}

static void on_kick_off(void)
{
    char name[] = "kicked";
    char text[] = "<kicked-off/>";
    xmlNode *node = xmlNewNode(NULL, (const xmlChar *)"by-node");
    (void)econf_notify(name, node);
    (void)conf_notify(name, text);
    xmlFreeNode(node);
}

int main(int count, char **arguments)
{
    const char *name = count > 1 ? arguments[1] : "good";
    char status_path[64];
    char echo[] = "echo";
    char scoped_echo[] = "/test:scoped-echo";
    econf_config_cb_info_t configs[] = {
        {"/test/system/user", 20, on_config}, {"/test:system/test:log", 10, on_config}, {0}};
    econf_status_cb_info_t statuses[] = {{status_path, on_status}, {0}};
    econf_operate_cb_info_t operations[] = {{echo, on_echo}, {scoped_echo, on_echo}, {0}};
    econf_plugin_subpub_info_t callbacks = {configs, statuses, operations, on_kick_off};
    const char *mode = count > 2 ? arguments[2] : "none";
    struct pollfd daemon = {-1, POLLIN | POLLRDHUP, 0};

    snprintf(status_path, sizeof status_path, "/test:journal/%s", name);
    daemon.fd = econf_plugin_init(name, &callbacks);
    if (daemon.fd < 0 ||
        econf_plugin_activate(strcmp(mode, "cfgr") == 0     ? ACTIVATE_WITH_CFGR
                              : strcmp(mode, "smooth") == 0 ? ACTIVATE_WITH_SMOOTH
                                                            : ACTIVATE_WITH_NONE) != 0) {
        return 1;
    }
    /* In the sandbox: tells a script that the name is taken. */
    FILE *marker = fopen("/var/tmp/activated", "we");
    if (marker != NULL) {
        (void)fclose(marker);
    }
    while (poll(&daemon, 1, -1) > 0 && (daemon.revents & (POLLERR | POLLHUP | POLLRDHUP)) == 0) {
        econf_plugin_run();
    }
    econf_plugin_close();
    return 0;
}
