/* A tool that prints where the daemon's socket for plugins is. */
#include <conf_plugin.h>
#include <stdio.h>

int main(void)
{
    (void)conf_load_config(NULL); /* without a profile the path is the first one */
    return puts(g_conf_plugin_socket) < 0;
}
