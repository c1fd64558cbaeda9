/* The interfaces that are configured, as elements of one list. */
#include <conf_api.h>
#include <conf_values.h>
#include <stdio.h>

int print_interfaces(void)
{
    xmlNode *list = NULL;
    if (econf_plugin_pull(0, "/ietf-interfaces:interfaces", &list) != 0)
        return -1; /* the exchange failed */
    xmlNode *each = econf_node_child(econf_node_find(list, "interfaces"), "interface");
    for (; each != NULL; each = econf_node_next(each, "interface")) {
        const char *name = "";
        if (econf_node_text(econf_node_child(each, "name"), &name) == 1)
            puts(name);
    }
    econf_node_free_list(list);
    return 0;
}
