/* Settings with defaults, of which none is taken before all are right. */
#include <conf_values.h>
#include <errno.h>

struct settings {
    long long seconds;
    int duplex;
};

int read_settings(xmlNode *node, struct settings *settings)
{
    static const char *const duplexes[] = {"auto", "half", "full", NULL};
    struct settings wanted = {5, 0};
    if (econf_node_number(econf_node_child(node, "seconds"), 1, 600, &wanted.seconds) < 0)
        return econf_plugin_refuse(ERANGE, "seconds are 1 to 600");
    if (econf_node_choice(econf_node_child(node, "duplex"), duplexes, &wanted.duplex) < 0)
        return econf_plugin_refuse(EINVAL, "duplex is auto, half or full");
    *settings = wanted;
    return 0;
}
