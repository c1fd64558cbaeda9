/*
 * plugin.c - a plugin that looks after the network interfaces of a Linux device.
 *
 *     interfaces-plugin [--record-only]
 *
 * It takes the configuration of interfaces from the daemon and carries it out (interface.c),
 * answers for their status (state.c), sets the view of their counters back when asked to, and
 * notifies the daemon when the status of an interface changes. It runs until it is told to end, by
 * SIGTERM, SIGINT or the daemon's kick-off. A supervisor joins the daemon, again and again when
 * need be. Interfaces that it made stay when it ends.
 *
 * One thread, one loop, four callbacks (callbacks.c). Messages go to the system log and to standard
 * error.
 */
#include "callbacks.h"
#include "interface.h"
#include "link.h"

#include "conf_supervisor.h"

#include <errno.h>
#include <libxml/parser.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <syslog.h>
#include <unistd.h>

/* ---- The daemon ---------------------------------------------------------------------------- */

static void on_lost(void *user, const char *why)
{
    (void)user;
    syslog(LOG_WARNING, "the daemon is gone: %s", why);
}

static bool notify_daemon(const struct link_state *state)
{
    xmlNode *change = state_brief_xml("interface-state-change", state);
    const bool sent = change != NULL &&
                      xmlNewNs(change, (const xmlChar *)INTERFACES_NAMESPACE, NULL) != NULL &&
                      econf_notify("interface-state-change", change) == 0;
    xmlFreeNode(change);
    return sent;
}

/* What was there before the plugin began is no news. */
static bool notify_nobody(const struct link_state *state)
{
    (void)state;
    return true;
}

static void report_changes(bool (*tell)(const struct link_state *))
{
    struct link_states states = {NULL, 0, 0};
    const int error = interface_look(&states);
    if (error == 0) {
        interface_report(&states, tell);
    } else {
        syslog(LOG_ERR, "cannot read the state of the interfaces: %s", strerror(-error));
    }
    free(states.items);
}

/* ---- The loop ------------------------------------------------------------------------------ */

/* Returns 0 when the plugin is to end, -1 when it cannot go on. */
static int serve(econf_supervisor_t *supervisor, int signals, int changes)
{
    enum { DAEMON, CHANGES, SIGNALS, SOURCES };
    struct pollfd sources[SOURCES] = {
        [DAEMON] = {.fd = econf_supervisor_fd(supervisor), .events = POLLIN},
        [CHANGES] = {.fd = changes, .events = POLLIN}, /* -1 is passed over */
        [SIGNALS] = {.fd = signals, .events = POLLIN},
    };
    for (;;) {
        const bool is_joined = econf_supervisor_reason(supervisor)[0] == '\0';
        if (is_joined && interfaces_changed) {
            interfaces_changed = false;
            report_changes(notify_daemon);
        }
        if (poll(sources, SOURCES, -1) < 0) {
            if (errno != EINTR) {
                syslog(LOG_ERR, "cannot wait: %s", strerror(errno));
                return -1;
            }
            continue;
        }
        if (sources[SIGNALS].revents != 0) {
            return 0;
        }
        if (sources[CHANGES].revents != 0) {
            link_watch_drain(changes);
            interfaces_changed = true;
        }
        if (sources[DAEMON].revents != 0) {
            const int result = econf_supervisor_process(supervisor);
            if (result != 1) {
                return result;
            }
        }
    }
}

/* A descriptor that becomes readable when the process is to end, or -1. */
static int watch_signals(void)
{
    sigset_t ending;
    (void)sigemptyset(&ending);
    (void)sigaddset(&ending, SIGTERM);
    (void)sigaddset(&ending, SIGINT);
    if (sigprocmask(SIG_BLOCK, &ending, NULL) != 0) {
        return -1;
    }
    return signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK);
}

int main(int argc, char **argv)
{
    const bool record_only = argc == 2 && strcmp(argv[1], "--record-only") == 0;
    if (argc > 1 && !record_only) {
        (void)fprintf(stderr, "usage: interfaces-plugin [--record-only]\n");
        return 2;
    }
    openlog("interfaces", LOG_PERROR, LOG_DAEMON);

    const int signals = watch_signals();
    if (signals < 0) {
        syslog(LOG_ERR, "cannot watch for signals: %s", strerror(errno));
        return 1;
    }
    const int changes = link_watch_open();
    if (changes < 0) {
        syslog(LOG_WARNING, "cannot watch for changes of links: %s", strerror(-changes));
    }

    interface_table_open(record_only);
    report_changes(notify_nobody);
    const econf_supervisor_options_t options = {.joined = interfaces_joined, .lost = on_lost};
    econf_supervisor_t *supervisor =
        econf_supervisor_create("interfaces", interfaces_callbacks(), &options);
    const int result = supervisor == NULL ? -1 : serve(supervisor, signals, changes);
    econf_supervisor_destroy(supervisor);
    interface_table_close();

    if (changes >= 0) {
        (void)close(changes);
    }
    (void)close(signals);
    xmlCleanupParser();
    return result == 0 ? 0 : 1;
}
