/* A plugin in a loop of epoll. */
#include "plugin.h"

#include <errno.h>
#include <sys/epoll.h>
#include <unistd.h>

int main(void)
{
    econf_supervisor_t *plugin = make_plugin();
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    struct epoll_event event = {.events = EPOLLIN, .data.ptr = plugin};
    int result = epoll_ctl(epoll, EPOLL_CTL_ADD, econf_supervisor_fd(plugin), &event) == 0 ? 1 : -1;
    while (result == 1) {
        const int count = epoll_wait(epoll, &event, 1, -1);
        if (count < 0) {
            result = errno == EINTR ? 1 : -1;
        } else {
            result = econf_supervisor_process(event.data.ptr);
        }
    }
    econf_supervisor_destroy(plugin);
    close(epoll);
    return result == 0 ? 0 : 1;
}
