/*
 * The plugin that the scripts of this directory run against confsim.
 *
 *     confsim_plugin NAME [cfgr|smooth|log]
 *
 * It accepts every change of /test:system/user (priority 20) and /test:system/log (priority 10)
 * and keeps a journal of them, which it gives out, and empties, as status /test:journal/NAME. A
 * value, or a filter, can ask for more: "refuse" refuses it, "stall" waits for the file
 * /var/tmp/go, which a kick-off and a roll-back of any plugin make, and takes it away, "die" ends
 * the process, "slow" takes 0.3 s, and "keep" refuses to be rolled back. A file
 * /var/tmp/drop makes it ask for data before it looks at the next request. With log it turns the
 * debug file on, and tells the system log that it runs.
 *
 * It is valid C and C++; ../abi/installed.sh compiles it as both.
 */
#include "conf_api.h"
#include "conf_debug.h"
#include "conf_values.h"

#include <libxml/tree.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static char journal[65536];
static int daemon_socket = -1;
static const char *const go = "/var/tmp/go"; /* in the sandbox */

static void make_file(const char *name)
{
    FILE *file = fopen(name, "we");
    if (file != NULL) {
        (void)fclose(file);
    }
}

/* The text of the leaf `name` in what the daemon holds at `path`, or "-". */
static void pull_value(int old, const char *path, char *value, size_t size)
{
    xmlNode *list = NULL;
    snprintf(value, size, "-");
    (void)econf_plugin_pull(old, path, &list);
    for (const xmlNode *leaf = list == NULL ? NULL : list->children; leaf; leaf = leaf->next) {
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
        make_file("/var/tmp/stalling");
        while (unlink(go) != 0) {
            usleep(20000);
        }
    }
    if ((oper & CONFIG_OP_ROLLBACK) != 0) {
        make_file(go);
    }
    if (strcmp(value, "slow") == 0) {
        usleep(300000);
    }
    if (strcmp(value, "die") == 0) {
        _exit(3);
    }
    if (strcmp(value, "refuse") == 0 ||
        (strcmp(value, "keep") == 0 && (oper & CONFIG_OP_ROLLBACK) != 0)) {
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
    if (filter != NULL && strcmp(filter, "refuse") == 0) {
        econf_plugin_error(23, "this filter is refused");
        return 1;
    }
    snprintf(text, sizeof text, "filter %s: %s", filter == NULL ? "none" : filter, journal);
    journal[0] = '\0';
    *status = xmlNewNode(NULL, (const xmlChar *)"journal");
    xmlNodeAddContent(*status, (const xmlChar *)text);
    return 0;
}

/* Sends a text as a message that nobody asked for. */
static void send_message(const char *text)
{
    const msg_head_t head = {MSG_MAGIC, (unsigned)strlen(text), 1, 0};
    (void)!write(daemon_socket, &head, sizeof head);
    (void)!write(daemon_socket, text, strlen(text));
}

/*
 * Gives its input back; without input the output stays empty. <die/> ends the process, <leak/>
 * loses memory, <hoard/> a descriptor, <record> and <refuse> record their text as an error and
 * succeed, <return/> is refused, and the texts of <send> are sent as messages.
 */
static int on_echo(int session_id, xmlNode *input, xmlNode **output)
{
    (void)session_id;
    if (input != NULL && strcmp((const char *)input->name, "die") == 0) {
        _exit(3);
    }
    if (input != NULL && strcmp((const char *)input->name, "leak") == 0) {
        static char *volatile kept;
        kept = (char *)malloc(sizeof journal);
        if (kept != NULL) {
            memset(kept, 1, sizeof journal);
            kept = NULL;
        }
    }
    if (input != NULL && strcmp((const char *)input->name, "hoard") == 0) {
        (void)dup(daemon_socket);
    }
    if (input != NULL && strcmp((const char *)input->name, "record") == 0) {
        econf_plugin_error(24, (const char *)input->children->content);
    }
    if (input != NULL && strcmp((const char *)input->name, "refuse") == 0) {
        (void)econf_plugin_refuse(26, "%s is refused", (const char *)input->children->content);
    }
    if (input != NULL && strcmp((const char *)input->name, "return") == 0) {
        (void)conf_set_error(25, "refused as it should be");
        return 25;
    }
    if (input != NULL && strcmp((const char *)input->name, "send") == 0) {
        send_message((const char *)input->children->content);
    }
    *output = xmlCopyNodeList(input);
    return 0;
}

/*
 * Makes a request of the daemon: <pull|locate|push|add|delete|update|save|copy|override>, with
 * <old/>, <path> and <data> inside, in this order. The output is what the daemon gives.
 */
static int on_ask(int session_id, xmlNode *input, xmlNode **output)
{
    const char *name = (const char *)input->name;
    const xmlNode *first = input->children;
    const int old = first != NULL && first->children == NULL;
    const xmlNode *place = old ? first->next : first;
    const char *path = place == NULL ? NULL : (const char *)place->children->content;
    xmlNode *data = place == NULL || place->next == NULL ? NULL : place->next->children;
    const int result = strcmp(name, "pull") == 0       ? econf_plugin_pull(old, path, output)
                       : strcmp(name, "locate") == 0   ? econf_plugin_locate(old, path, output)
                       : strcmp(name, "push") == 0     ? econf_plugin_push(path, data)
                       : strcmp(name, "save") == 0     ? econf_plugin_save_deployment()
                       : strcmp(name, "copy") == 0     ? econf_plugin_copy_running_to_deployment(0)
                       : strcmp(name, "override") == 0 ? econf_plugin_copy_running_to_deployment(1)
                       : strcmp(name, "add") == 0 ? econf_plugin_config_deployment(path, 0, data)
                       : strcmp(name, "delete") == 0
                           ? econf_plugin_config_deployment(path, 1, data)
                           : econf_plugin_config_deployment(path, 2, data);
    (void)session_id;
    if (result != 0) {
        econf_plugin_error(5, "the daemon refused it");
    }
    return result;
}

static void on_kick_off(void)
{
    char name[] = "kicked";
    char text[] = "<kicked-off/>";
    xmlNode *node = xmlNewNode(NULL, (const xmlChar *)"by-node");
    make_file(go);
    (void)econf_notify(name, node);
    (void)conf_notify(name, text);
    xmlFreeNode(node);
}

int main(int count, char **arguments)
{
    const char *name = count > 1 ? arguments[1] : "good";
    char status_path[64];
    char echo[] = "echo";
    char ask[] = "ask";
    char scoped_echo[] = "/test:scoped-echo";
    econf_config_cb_info_t configs[] = {{"/test/system/user", 20, on_config},
                                        {"/test:system/test:log", 10, on_config},
                                        {NULL, 0, NULL}};
    econf_status_cb_info_t statuses[] = {{status_path, on_status}, {NULL, NULL}};
    econf_operate_cb_info_t operations[] = {
        {echo, on_echo}, {scoped_echo, on_echo}, {ask, on_ask}, {NULL, NULL}};
    econf_plugin_subpub_info_t callbacks = {configs, statuses, operations, on_kick_off};
    const int logs = count > 2 && strcmp(arguments[2], "log") == 0;
    const int mode = count < 3 || logs                     ? ACTIVATE_WITH_NONE
                     : strcmp(arguments[2], "smooth") == 0 ? ACTIVATE_WITH_SMOOTH
                                                           : ACTIVATE_WITH_CFGR;
    struct pollfd daemon = {-1, POLLIN | POLLRDHUP, 0};

    snprintf(status_path, sizeof status_path, "/test:journal/%s", name);
    if (logs) {
        (void)econf_plugin_config_debug(DBG_ALL, 1);
        safety_syslog(14, "%s runs <password>s3cret</password>\n", name);
    }
    daemon.fd = daemon_socket = econf_plugin_init(name, &callbacks);
    if (daemon.fd < 0 || econf_plugin_activate(mode) != 0) {
        return 1;
    }
    /* In the sandbox: tells a script that the name is taken. */
    make_file("/var/tmp/activated");
    while (poll(&daemon, 1, -1) > 0 && (daemon.revents & (POLLERR | POLLHUP | POLLRDHUP)) == 0) {
        if (unlink("/var/tmp/drop") == 0) {
            xmlNode *list = NULL;
            (void)econf_plugin_pull(0, "/test:system", &list); /* drops what is there */
            xmlFreeNodeList(list);
        }
        econf_plugin_run();
    }
    econf_plugin_close();
    return 0;
}
