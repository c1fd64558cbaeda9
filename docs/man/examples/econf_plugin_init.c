/* A loop that ends with the connection. It needs _GNU_SOURCE for POLLRDHUP. */
#define _GNU_SOURCE
#include <conf_api.h>
#include <poll.h>

int serve(econf_plugin_subpub_info_t *info)
{
    struct pollfd fd = {econf_plugin_init("demo", info), POLLIN | POLLRDHUP, 0};
    int result = fd.fd < 0 ? -1 : econf_plugin_activate(ACTIVATE_WITH_CFGR);
    while (result == 0 && poll(&fd, 1, -1) == 1 &&
           (fd.revents & (POLLERR | POLLHUP | POLLRDHUP)) == 0)
        econf_plugin_run();
    econf_plugin_close();
    return result;
}
