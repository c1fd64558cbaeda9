/*
 * plugin.c - a plugin that looks after the network interfaces of a Linux device.
 *
 *     interfaces-plugin [--record-only]
 *
 * It takes the configuration of interfaces from the daemon and carries it out (interface.c),
 * answers for their status (state.c), sets the view of their counters back when asked to, and
 * notifies the daemon when the status of an interface changes. It runs until it is told to end, by
 * SIGTERM, SIGINT or the daemon's kick-off, and joins the daemon again when that has been away.
 * Interfaces that it made stay when it ends.
 *
 * One thread, one loop, four callbacks (callbacks.c). Messages go to the system log and to standard
 * error.
 */
#include "callbacks.h"
#include "interface.h"
#include "link.h"

#include "conf_api.h"

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

enum { REJOIN_MILLISECONDS = 2000 };

static bool leaving; /* the loop ends */

/* ---- The daemon ---------------------------------------------------------------------------- */

/* Registers and activates. Returns the socket to watch, or -1 when the daemon is not there. */
static int join_daemon(void)
{
    static bool missing; /* has been said */
    const int sock = econf_plugin_init("interfaces", interfaces_callbacks());
    if (sock < 0) {
        if (!missing) {
            syslog(LOG_WARNING, "the daemon is not there; trying again");
        }
        missing = true;
        return -1;
    }
    missing = false;
    /*
     * The configuration that is in force already now arrives like changes. What left it while the
     * daemon was away is not told, and stays as it is.
     */
    if (econf_plugin_activate(ACTIVATE_WITH_CFGR) != 0) {
        econf_plugin_close();
        return -1;
    }
    syslog(LOG_NOTICE, "joined the daemon");
    return sock;
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

static int serve(int signals, int changes)
{
    enum { DAEMON, CHANGES, SIGNALS, SOURCES };
    int sock = -1;
    while (!leaving && !interfaces_events.kicked_off) {
        if (sock < 0) {
            sock = join_daemon();
            interfaces_events.changed =
                true; /* something may have changed while the daemon was away */
        }
        if (sock >= 0 && interfaces_events.changed) {
            interfaces_events.changed = false;
            report_changes(notify_daemon);
        }

        struct pollfd sources[SOURCES] = {
            [DAEMON] = {.fd = sock, .events = POLLIN | POLLRDHUP}, /* -1 is passed over */
            [CHANGES] = {.fd = changes, .events = POLLIN},
            [SIGNALS] = {.fd = signals, .events = POLLIN},
        };
        if (poll(sources, SOURCES, sock < 0 ? REJOIN_MILLISECONDS : -1) < 0 && errno != EINTR) {
            syslog(LOG_ERR, "cannot wait: %s", strerror(errno));
            return -1;
        }
        if (sources[SIGNALS].revents != 0) {
            leaving = true;
        }
        if (sources[CHANGES].revents != 0) {
            link_watch_drain(changes);
            interfaces_events.changed = true;
        }
        if ((sources[DAEMON].revents & POLLIN) != 0) {
            econf_plugin_run();
        }
        if ((sources[DAEMON].revents & (POLLHUP | POLLRDHUP | POLLERR)) != 0) {
            syslog(LOG_WARNING, "the daemon has hung up");
            econf_plugin_close();
            sock = -1;
        }
    }
    if (sock >= 0) {
        econf_plugin_close();
    }
    return 0;
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
    const int result = serve(signals, changes);
    interface_table_close();

    if (changes >= 0) {
        (void)close(changes);
    }
    (void)close(signals);
    xmlCleanupParser();
    return result == 0 ? 0 : 1;
}
