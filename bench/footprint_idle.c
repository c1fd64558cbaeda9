/*
 * A plugin that is registered, activated and idle; compiled without WITH_PLUGIN, a program that
 * loads the same libraries and does nothing with them. Without an argument both end at once.
 */
#include <signal.h>
#include <stddef.h>

#ifdef WITH_PLUGIN
#include "conf_api.h"

static int on_change(int session_id, int oper, int more, int priority, const char *path)
{
    (void)session_id, (void)oper, (void)more, (void)priority;
    return path == NULL;
}

static int start(void)
{
    econf_config_cb_info_t configs[] = {{"/demo:settings", 10, on_change}, {NULL, 0, NULL}};
    econf_plugin_subpub_info_t callbacks = {configs, NULL, NULL, NULL};
    return econf_plugin_init("footprint", &callbacks) < 0 ||
           econf_plugin_activate(ACTIVATE_WITH_NONE) != 0;
}
#else
static int start(void)
{
    return 0;
}
#endif

int main(int count, char **arguments)
{
    (void)arguments;
    if (count > 1) {
        if (start() != 0)
            return 1;
        raise(SIGSTOP); /* to be looked at */
    }
    return 0;
}
