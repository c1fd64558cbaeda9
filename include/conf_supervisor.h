/*
 * conf_supervisor.h - a plugin that joins the daemon, serves it, and joins it again by itself.
 *
 * The supervisor stands above the calls of conf_api.h. It registers and activates the plugin,
 * handles the daemon's requests, notices when the daemon hangs up, and comes back when the daemon
 * does. The host watches one descriptor, the same for the supervisor's whole life:
 *
 *     static void on_joined(void *user)
 *     {
 *         xmlNode *list = NULL;            // the whole state: replace what was there before
 *         if (econf_plugin_pull(0, "/demo:settings", &list) == 0)
 *             replace_all(user, list);
 *         xmlFreeNodeList(list);
 *     }
 *
 *     econf_config_cb_info_t configs[] = {{"/demo:settings", 10, on_settings}, {NULL, 0, NULL}};
 *     econf_plugin_subpub_info_t info = {configs, NULL, NULL, NULL};
 *     econf_supervisor_options_t options = {.joined = on_joined, .user = &state};
 *
 *     econf_supervisor_t *s = econf_supervisor_create("demo", &info, &options);
 *     struct pollfd fds[] = {{econf_supervisor_fd(s), POLLIN, 0}, {my_own_fd, POLLIN, 0}};
 *     while (s != NULL && poll(fds, 2, -1) >= 0) {     // a real loop goes on after EINTR
 *         if ((fds[0].revents & POLLIN) != 0 && econf_supervisor_process(s) != 1)
 *             break;
 *         if ((fds[1].revents & POLLIN) != 0)
 *             my_own_business();                       // may make requests, too
 *     }
 *     econf_supervisor_destroy(s);
 *
 * Any other loop takes the descriptor in the same way, level-triggered: epoll, sd_event_add_io(),
 * g_unix_fd_add(), uv_poll_init(), asio::posix::stream_descriptor. econf_supervisor_run() is a loop
 * for those that have none.
 *
 * Requests. Under a supervisor the plugin may make the requests of conf_api.h at any time while it
 * is joined: in callbacks, in joined(), in posted work, from a timer of the host. What the daemon
 * sends while a request waits for its reply is kept, in order, and handled by the next
 * econf_supervisor_process(), which the descriptor announces; no callback is ever called from
 * inside a request. 64 MiB are kept. What exceeds them is dropped with a warning in the debug file.
 * A request fails with -1 when its time is over; its late reply is dropped when it comes, and the
 * connection stays. Between connections requests fail at once with -1.
 *
 * Replies never wait. What a full socket does not take is sent as soon as the daemon reads again,
 * and until then no further request of the daemon is handled.
 *
 * The other calls. The supervisor owns registration, loop and rejoining: do not call
 * econf_plugin_init() or econf_plugin_run() yourself. econf_plugin_deactivate() and
 * econf_plugin_activate() work as ever, but every rejoining activates again. econf_plugin_close()
 * takes the plugin away from its supervisor: econf_supervisor_process() returns 0 from then on, and
 * only econf_supervisor_destroy() is left to do.
 *
 * Threads. All calls are made on one thread, that of the loop, except econf_supervisor_post() and
 * econf_supervisor_stop(). No thread is started, and no signal is used. A process has one
 * supervisor. A child made by fork() has none: there econf_supervisor_process() returns -1, and
 * econf_supervisor_destroy() releases the child's copies and leaves the parent's plugin alone.
 *
 * Callbacks, including joined(), lost() and posted work, may call anything in this header: stop and
 * destroy, too. Inside them econf_supervisor_process() does nothing and returns 1.
 *
 * All of this header came with version 1.1 of the interface. The loader refuses a program that uses
 * it where the library is older: "version `CONFSVC_1.1' not found".
 */
#ifndef CONF_SUPERVISOR_H
#define CONF_SUPERVISOR_H

#include "conf_api.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A supervisor; its members are the library's. */
typedef struct _econf_supervisor econf_supervisor_t;

/* How a plugin is supervised. All zeros are the defaults; times are in milliseconds, and one that
 * is negative counts as 0. */
typedef struct _econf_supervisor_options {
    int start_mode;   /* of every activation, see econf_plugin_activate() */
    int join_limit;   /* for all of connecting, registering and activating; 0: 5000 */
    int answer_limit; /* for each later request, whatever arrives meanwhile; 0: 300000 */
    int retry_first;  /* the first pause between attempts to join, 0: 100; it doubles each time */
    int retry_most;   /* and is never longer than this; 0: 30000. Each is shortened at random, by
                         at most a half, so that not all plugins come back at one moment */

    /*
     * Called after each joining, once the plugin is active and before any request of the daemon is
     * handled; may be null. A pull made here is complete: what changes later arrives as a change.
     * The place to compare the daemon's configuration with the plugin's own state, for no callback
     * tells what was removed while the plugin was away.
     */
    void (*joined)(void *user);

    /*
     * Called once for each joined(), when the connection ends otherwise than by
     * econf_supervisor_destroy() and econf_plugin_close(); may be null. `why` says so in words and
     * is valid during the call. Requests fail here. The supervisor then tries to join again.
     */
    void (*lost)(void *user, const char *why);

    void *user; /* handed to both */
} econf_supervisor_options_t;

/*
 * Makes the supervisor of this process for the plugin `name`. Nothing is connected and nothing
 * waits: the first econf_supervisor_process() does that, and the descriptor asks for it at once.
 * `options` may be null. Name, records, their paths and options are copied; the caller's are not
 * needed afterwards.
 * Returns the supervisor for econf_supervisor_destroy(); null when name or info are null, when the
 * process has a supervisor or a plugin already, when it is the daemon's own (hooks are installed:
 * plugin code in there needs no connection), and when memory or descriptors are missing. The cause
 * is in the debug file.
 */
econf_supervisor_t *econf_supervisor_create(const char *name,
                                            const econf_plugin_subpub_info_t *info,
                                            const econf_supervisor_options_t *options);

/*
 * The descriptor to watch for input, level-triggered. It is the same from creation to destruction
 * and stays the supervisor's: do not read or close it. It is close-on-exec. Returns -1 for null.
 */
int econf_supervisor_fd(econf_supervisor_t *supervisor);

/*
 * Does what there is to do: runs posted work, joins when it is time, handles up to 64 requests of
 * the daemon, notices the end of the connection. What is left makes the descriptor readable again.
 * Call it whenever the descriptor is readable; a call too many does no harm. Apart from what
 * callbacks do, it waits only while it joins: at most for join_limit.
 * Returns
 *    1  to be called again when the descriptor is readable; also while there is no daemon
 *    0  when this is over: the daemon has kicked the plugin off (after kick_off() was called and
 *       the daemon answered), econf_supervisor_stop() or econf_plugin_close() was called, or the
 *       supervisor was destroyed by a callback. Every later call returns 0, too
 *   -1  for null, in a child made by fork(), and when the descriptor no longer works
 */
int econf_supervisor_process(econf_supervisor_t *supervisor);

/*
 * A loop for a program without one: waits on the descriptor and calls econf_supervisor_process()
 * until that returns 0 or -1, which is then returned. Signals do not end it; their handlers call
 * econf_supervisor_stop(). Returns -1 inside a callback.
 */
int econf_supervisor_run(econf_supervisor_t *supervisor);

/*
 * Has work(arg) called on the thread of the loop, by the next econf_supervisor_process(), in the
 * order in which it was posted; what work itself posts waits for the one after. `arg` stays the
 * caller's. May be called from any thread, but not from a signal handler and not while or after the
 * supervisor is destroyed. Work is done whether or not the plugin is joined. After a stop, and when
 * the supervisor is destroyed, what is still queued is forgotten, not called.
 * Returns 0, or -1 for null, in a child made by fork() and without memory.
 */
int econf_supervisor_post(econf_supervisor_t *supervisor, void (*work)(void *arg), void *arg);

/*
 * Makes the descriptor readable and econf_supervisor_process() return 0, at once and from then on;
 * a request that waits for its reply goes on waiting. The plugin stays registered until the
 * supervisor is destroyed. May be called from any thread and any signal handler, any number of
 * times; keeps errno. Null is ignored.
 */
void econf_supervisor_stop(econf_supervisor_t *supervisor);

/*
 * Why the plugin is not joined, in words for people: that there is no daemon, that this user may
 * not reach it, what the daemon's refusal said, that it does not answer, how the connection ended,
 * that the plugin was kicked off or closed, for null that there is no supervisor. An empty text
 * while it is joined. Never null; valid until the next econf_supervisor_process() or _destroy().
 *
 *     if (*econf_supervisor_reason(s) != '\0')
 *         fprintf(stderr, "demo: %s\n", econf_supervisor_reason(s));
 */
const char *econf_supervisor_reason(econf_supervisor_t *supervisor);

/*
 * Closes the plugin and releases everything. lost() is not called. May be called from any callback:
 * the request being handled is then not answered, and the econf_supervisor_process() around it
 * returns 0. Null is ignored.
 */
void econf_supervisor_destroy(econf_supervisor_t *supervisor);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
