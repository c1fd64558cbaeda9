/* A plugin of the older interface that waits in the library. */
#include <conf_api.h>

static int on_banner(int oper, int more, int priority, char *path)
{
    (void)oper, (void)more, (void)priority;
    xmlNode *banner = conf_get_config(path);
    xmlFreeNodeList(banner);
    return 0;
}

int serve_banner(void)
{
    char name[] = "banner", path[] = "/legacy:banner";
    config_callback_t configs[] = {{path, 10, on_banner}, {NULL, 0, NULL}};
    conf_plugin_info_t info = {configs, NULL, NULL, NULL, NULL};
    conf_context_t *plugin = conf_plugin_init(name, &info);
    if (plugin == NULL)
        return -1;
    if (conf_start_session(plugin, ACTIVATE_WITH_NONE) == 0)
        conf_run(plugin, 1); /* until the daemon hangs up */
    return conf_plugin_close(plugin);
}
