/* Both logs are written; the password reaches the system log as asterisks only. */
#include <conf_debug.h>
#include <syslog.h>

int main(void)
{
    if (econf_plugin_config_debug(DBG_INFO, 1) != 0) /* for development only */
        return 1;
    safety_syslog(LOG_USER | LOG_INFO, "user %s: <password>%s</password>", "ann", "secret");
    return econf_plugin_config_debug(0, 0);
}
