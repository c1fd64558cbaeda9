/* The entry that a change is about. */
#include <conf_values.h>
#include <stdio.h>

int main(void)
{
    const char *path = "/ietf-interfaces:interfaces/interface[name=eth0]/mtu";
    char name[16];
    if (econf_path_key(path, "interface", "name", name, sizeof(name)) != 1)
        return 1;
    return puts(name) < 0;
}
