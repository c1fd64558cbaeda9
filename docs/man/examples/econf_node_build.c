/* A status callback with a counter in its answer. */
#include <conf_values.h>
#include <errno.h>

int on_state(int session_id, const char *path, const char *filter, xmlNode **status)
{
    (void)session_id, (void)path, (void)filter;
    xmlNode *state = econf_node_build("state", "name", "eth0", "oper-status", "up", NULL);
    if (econf_node_add(state, "in-octets", "%u", 4711U) == NULL) {
        econf_node_free_list(state);
        return econf_plugin_refuse(ENOMEM, "no memory for the answer");
    }
    *status = state; /* the library frees it */
    return 0;
}
