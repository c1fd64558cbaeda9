/* A plugin in GLib's main loop. */
#include "plugin.h"

#include <glib-unix.h>

static econf_supervisor_t *plugin;
static int result = 1;

static gboolean on_input(gint fd, GIOCondition condition, gpointer loop)
{
    (void)fd;
    (void)condition;
    result = econf_supervisor_process(plugin);
    if (result == 1) {
        return G_SOURCE_CONTINUE;
    }
    g_main_loop_quit(loop);
    return G_SOURCE_REMOVE;
}

int main(void)
{
    plugin = make_plugin();
    GMainLoop *loop = g_main_loop_new(NULL, FALSE);
    g_unix_fd_add(econf_supervisor_fd(plugin), G_IO_IN, on_input, loop);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    econf_supervisor_destroy(plugin);
    return result == 0 ? 0 : 1;
}
