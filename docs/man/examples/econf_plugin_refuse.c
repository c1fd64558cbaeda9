/* A change that the hardware does not allow. */
#include <conf_values.h>
#include <errno.h>

int check_speed(const char *interface, unsigned int speed)
{
    if (speed > 1000)
        return econf_plugin_refuse(EINVAL, "%s has at most 1000 Mbit/s", interface);
    return 0;
}
