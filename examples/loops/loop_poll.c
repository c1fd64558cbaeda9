/* A plugin in a loop of poll(). */
#include "plugin.h"

#include <errno.h>
#include <poll.h>

int main(void)
{
    econf_supervisor_t *plugin = make_plugin();
    struct pollfd input = {econf_supervisor_fd(plugin), POLLIN, 0};
    int result = 1;
    while (result == 1) {
        if (poll(&input, 1, -1) < 0) {
            result = errno == EINTR ? 1 : -1;
        } else {
            result = econf_supervisor_process(plugin);
        }
    }
    econf_supervisor_destroy(plugin);
    return result == 0 ? 0 : 1;
}
