/* A plugin that joins the daemon whenever there is one, until it is told to stop. */
#include <conf_supervisor.h>
#include <signal.h>
#include <stdio.h>

static econf_supervisor_t *plugin;

static void on_signal(int number)
{
    (void)number;
    econf_supervisor_stop(plugin);
}

static void on_lost(void *user, const char *why)
{
    (void)user;
    fprintf(stderr, "demo: %s\n", why);
}

int serve_until_stopped(const econf_plugin_subpub_info_t *info)
{
    econf_supervisor_options_t options = {0};
    options.lost = on_lost;
    plugin = econf_supervisor_create("demo", info, &options);
    signal(SIGTERM, on_signal);
    const int result = econf_supervisor_run(plugin);
    signal(SIGTERM, SIG_DFL);
    econf_supervisor_destroy(plugin);
    return result;
}
