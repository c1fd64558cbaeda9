/* An entry is built, read and freed. */
#include <conf_values.h>

int main(void)
{
    long long mtu = 1500; /* when it is absent */
    xmlNode *interface = econf_node_build("interface", "name", "eth0", "mtu", "9000", NULL);
    const int read = econf_node_number(econf_node_child(interface, "mtu"), 68, 65535, &mtu);
    econf_node_free_list(interface);
    return read != 1 || mtu != 9000;
}
