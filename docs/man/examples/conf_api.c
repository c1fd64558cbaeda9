/* The tables of a plugin that takes part in the configuration and answers for its status. */
#include <conf_api.h>

static int on_settings(int session_id, int oper, int more, int priority, const char *path)
{
    (void)session_id, (void)oper, (void)more, (void)priority, (void)path;
    return 0; /* anything else refuses the change */
}

static int on_state(int session_id, const char *path, const char *filter, xmlNode **status)
{
    (void)session_id, (void)path, (void)filter;
    *status = xmlNewNode(NULL, BAD_CAST "state");
    return *status != NULL ? 0 : -1;
}

int register_demo(void)
{
    econf_config_cb_info_t configs[] = {{"/demo:settings", 10, on_settings}, {NULL, 0, NULL}};
    econf_status_cb_info_t statuses[] = {{"/demo:state", on_state}, {NULL, NULL}};
    econf_plugin_subpub_info_t info = {configs, statuses, NULL, NULL};
    return econf_plugin_init("demo", &info);
}
