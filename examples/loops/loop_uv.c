/* A plugin in libuv. */
#include "plugin.h"

#include <uv.h>

static int result = 1;

static void on_input(uv_poll_t *watch, int status, int events)
{
    (void)events;
    result = status == 0 ? econf_supervisor_process(watch->data) : -1;
    if (result != 1) {
        uv_close((uv_handle_t *)watch, NULL); /* the loop ends with its last watch */
    }
}

int main(void)
{
    econf_supervisor_t *plugin = make_plugin();
    uv_poll_t watch;
    if (uv_poll_init(uv_default_loop(), &watch, econf_supervisor_fd(plugin)) == 0) {
        watch.data = plugin;
        uv_poll_start(&watch, UV_READABLE, on_input);
        uv_run(uv_default_loop(), UV_RUN_DEFAULT);
    }
    uv_loop_close(uv_default_loop());
    econf_supervisor_destroy(plugin);
    return result == 0 ? 0 : 1;
}
