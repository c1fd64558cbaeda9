/* A request is built, and taken apart again. */
#include <conf_plugin.h>
#include <stdio.h>

int main(void)
{
    const char *method = NULL;
    xmlNode *params = xmlNewNode(NULL, BAD_CAST "params");
    xmlNode *rpc = plugin_build_rpc_message("save_deployment", params, 7);
    if (rpc == NULL || plugin_parse_rpc(rpc, &method, &params) != 0)
        return 1;
    printf("%s has the id %u\n", method, plugin_get_msgid(rpc));
    xmlFreeNode(rpc);
    return 0;
}
