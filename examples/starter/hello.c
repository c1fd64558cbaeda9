/*
 * A minimal plugin: operators configure a greeting, and its status shows it. The supervisor
 * registers with the daemon, and does so again after a restart.
 */
#include <conf_supervisor.h>
#include <conf_values.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>

static char greeting[64]; /* in force; "" if none is configured */

/* Applies the configuration. */
static int apply(int old)
{
    xmlNode *settings = NULL;
    const char *text = "";
    int result = econf_plugin_pull(old, "/hello:settings", &settings);
    if (result != 0)
        return econf_plugin_refuse(EIO, "the settings cannot be read");
    if (econf_node_text(econf_node_child(settings, "greeting"), &text) < 0)
        result = econf_plugin_refuse(ENOMEM, "out of memory");
    else if (strlen(text) >= sizeof greeting)
        result =
            econf_plugin_refuse(ERANGE, "a greeting has at most %zu bytes", sizeof greeting - 1);
    else
        strcpy(greeting, text);
    econf_node_free_list(settings);
    return result;
}

static int on_settings(int session_id, int oper, int more, int priority, const char *path)
{
    (void)session_id, (void)more, (void)priority, (void)path;
    /* A roll-back restores the configuration before the commit. */
    return apply((oper & CONFIG_OP_ROLLBACK) != 0);
}

static int on_state(int session_id, const char *path, const char *filter, xmlNode **status)
{
    (void)session_id, (void)path, (void)filter;
    *status = econf_node_build("state", "greeting", greeting, NULL);
    return *status == NULL ? ENOMEM : 0;
}

/* No callback reports what changed while the plugin was away. */
static void on_joined(void *user)
{
    (void)user;
    if (apply(0) != 0)
        fprintf(stderr, "hello: the settings were not applied\n");
}

int main(void)
{
    econf_config_cb_info_t configs[] = {{"/hello:settings", 10, on_settings}, {NULL, 0, NULL}};
    econf_status_cb_info_t states[] = {{"/hello:state", on_state}, {NULL, NULL}};
    econf_plugin_subpub_info_t callbacks = {configs, states, NULL, NULL};
    econf_supervisor_options_t options = {.joined = on_joined};
    econf_supervisor_t *plugin = econf_supervisor_create("hello", &callbacks, &options);
    int result = econf_supervisor_run(plugin);
    econf_supervisor_destroy(plugin);
    return result == 0 ? 0 : 1;
}
