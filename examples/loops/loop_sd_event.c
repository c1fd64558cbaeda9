/* A plugin in sd-event. */
#include "plugin.h"

#include <sys/epoll.h>
#include <systemd/sd-event.h>

static int on_input(sd_event_source *source, int fd, uint32_t events, void *plugin)
{
    (void)fd;
    (void)events;
    const int result = econf_supervisor_process(plugin);
    return result == 1 ? 0 : sd_event_exit(sd_event_source_get_event(source), result);
}

int main(void)
{
    econf_supervisor_t *plugin = make_plugin();
    sd_event *loop = NULL;
    int result = sd_event_default(&loop);
    if (result >= 0) {
        result =
            sd_event_add_io(loop, NULL, econf_supervisor_fd(plugin), EPOLLIN, on_input, plugin);
    }
    if (result >= 0) {
        result = sd_event_loop(loop);
    }
    sd_event_unref(loop);
    econf_supervisor_destroy(plugin);
    return result == 0 ? 0 : 1;
}
