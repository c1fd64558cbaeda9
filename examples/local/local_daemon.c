/*
 * local_daemon.c - a daemon that has the code of a plugin in its own process.
 *
 *     local-daemon MODULE CONFIGURATION.xml
 *
 * Loads the interfaces plugin from MODULE (./interfaces-module.so: the sources of ../interfaces but
 * for the main program), injects hooks in the place of the socket, and then plays a commit of the
 * whole configuration, a status request and an operation on it. The callbacks are called directly,
 * and what they ask of the daemon, econf_plugin_pull() for instance, reaches the hooks below: not a
 * line of the plugin knows the difference. Interfaces are only recorded, nothing of the machine is
 * changed.
 */
#include "conf_api.h"
#include "conf_plugin.h"

#include <dlfcn.h>
#include <libxml/parser.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>

enum { SESSION = 1 };

static xmlDoc *configuration;

/* ---- The hooks ----------------------------------------------------------------------------- */

static const char *name_of(xmlNode *interface)
{
    for (xmlNode *child = xmlFirstElementChild(interface); child != NULL;
         child = xmlNextElementSibling(child)) {
        if (xmlStrEqual(child->name, (const xmlChar *)"name") && child->children != NULL) {
            return (const char *)child->children->content;
        }
    }
    return "";
}

static void path_of(xmlNode *interface, char *path, size_t size)
{
    (void)snprintf(path, size, "/ietf-interfaces:interfaces/interface[name=%s]",
                   name_of(interface));
}

/* There is one configuration here: the one before the change is empty. */
static int pull(bool_t old_flag, const char *path, xmlNode **result)
{
    *result = NULL;
    xmlNode *interface = xmlFirstElementChild(xmlDocGetRootElement(configuration));
    for (; interface != NULL && !old_flag; interface = xmlNextElementSibling(interface)) {
        char own[128];
        path_of(interface, own, sizeof own);
        if (strcmp(own, path) == 0) {
            *result = xmlCopyNode(interface, 1);
            return *result == NULL ? -1 : 0;
        }
    }
    return 0;
}

static int publish(const char *path, xmlNode *data)
{
    (void)data;
    printf("    published: %s\n", path);
    return 0;
}

static void take_error(int err_code, const char *err_msg)
{
    printf("    the plugin says: %s (%d)\n", err_msg == NULL ? "" : err_msg, err_code);
}

/* ---- The session --------------------------------------------------------------------------- */

static void print_nodes(xmlNode *nodes)
{
    xmlBuffer *text = xmlBufferCreate();
    for (xmlNode *node = nodes; text != NULL && node != NULL; node = node->next) {
        (void)xmlNodeDump(text, NULL, node, 0, 1);
        printf("%s\n", (const char *)xmlBufferContent(text));
        xmlBufferEmpty(text);
    }
    xmlBufferFree(text);
}

/* Returns the number of interfaces that the plugin refused. */
static int commit(const econf_config_cb_info_t *subscription)
{
    int refused = 0;
    xmlNode *interface = xmlFirstElementChild(xmlDocGetRootElement(configuration));
    for (; interface != NULL; interface = xmlNextElementSibling(interface)) {
        char path[128];
        path_of(interface, path, sizeof path);
        const int more = xmlNextElementSibling(interface) != NULL;
        const int result =
            subscription->callback(SESSION, CONFIG_OP_ADD, more, subscription->priority, path);
        printf("add %s: %s\n", path, result == 0 ? "ok" : "refused");
        refused += result != 0;
    }
    return refused;
}

static int ask_status(const econf_status_cb_info_t *publication)
{
    xmlNode *status = NULL;
    const int result = publication->callback(SESSION, publication->path, NULL, &status);
    printf("status of %s:\n", publication->path);
    print_nodes(status);
    xmlFreeNodeList(status);
    return result;
}

static int call(const econf_operate_cb_info_t *operation, const char *name)
{
    xmlNode *input = xmlNewNode(NULL, (const xmlChar *)"name");
    xmlNode *output = NULL;
    xmlNodeAddContent(input, (const xmlChar *)name);
    const int result = operation->callback(SESSION, input, &output);
    printf("%s of %s: %s\n", operation->path, name, result == 0 ? "ok" : "refused");
    print_nodes(output);
    xmlFreeNodeList(output);
    xmlFreeNode(input);
    return result;
}

int main(int argc, char **argv)
{
    if (argc != 3) {
        (void)fprintf(stderr, "usage: local-daemon MODULE CONFIGURATION.xml\n");
        return 2;
    }
    configuration = xmlReadFile(argv[2], NULL, XML_PARSE_NOBLANKS | XML_PARSE_NONET);
    void *module = dlopen(argv[1], RTLD_NOW);
    if (configuration == NULL || module == NULL) {
        (void)fprintf(stderr, "local-daemon: %s\n", module == NULL ? dlerror() : argv[2]);
        return 1;
    }

    /* A slot that is left out makes the calls that need it fail, and name it in the debug file. */
    confd_plugin_callback_t hooks = {
        .conf_plugin_pull = pull, .conf_plugin_push = publish, .conf_plugin_error = take_error};
    if (conf_plugin_init_api(&hooks) != 0) {
        return 1;
    }
    void (*open_table)(bool record_only);
    econf_plugin_subpub_info_t *(*get_callbacks)(void);
    *(void **)&open_table = dlsym(module, "interface_table_open");
    *(void **)&get_callbacks = dlsym(module, "interfaces_callbacks");
    if (open_table == NULL || get_callbacks == NULL) {
        (void)fprintf(stderr, "local-daemon: %s is not the interfaces plugin\n", argv[1]);
        return 1;
    }
    open_table(true);
    const econf_plugin_subpub_info_t *plugin = get_callbacks();

    const char *first = name_of(xmlFirstElementChild(xmlDocGetRootElement(configuration)));
    const int failures = commit(plugin->config_cbs) + (ask_status(plugin->status_cbs) != 0) +
                         (call(plugin->operate_cbs, first) != 0);
    xmlFreeDoc(configuration);
    return failures == 0 ? 0 : 1;
}
