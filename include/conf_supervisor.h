/*
 * conf_supervisor.h - a plugin that joins the daemon, serves it, and rejoins it automatically.
 *
 * The supervisor builds on the calls of conf_api.h. It registers and activates the plugin, handles
 * the daemon's requests, notices when the daemon hangs up, and rejoins when the daemon is back. The
 * host watches a single descriptor, which does not change during the supervisor's lifetime:
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
 * Other event loops watch the descriptor in the same way, level-triggered: epoll,
 * sd_event_add_io(), g_unix_fd_add(), uv_poll_init(), asio::posix::stream_descriptor. Programs
 * without a loop call econf_supervisor_run().
 *
 * Requests. A supervised plugin may make the requests of conf_api.h at any time while it is joined:
 * in callbacks, in joined(), in posted work, from a timer of the host. What the daemon sends while
 * a request waits for its reply is kept, in order, and handled by the next
 * econf_supervisor_process(); the descriptor becomes readable for that. Callbacks are never called
 * from inside a request. Up to 64 MiB are kept; more is dropped with a warning in the debug file. A
 * request that times out fails with -1; its late reply is dropped, and the connection is kept.
 * Between connections requests fail at once with -1.
 *
 * Replies never block. If the socket is full, the rest is sent as soon as the daemon reads again,
 * and until then no further request of the daemon is handled.
 *
 * Other calls. The supervisor is in charge of registration, loop and rejoining: do not call
 * econf_plugin_init() or econf_plugin_run(). econf_plugin_deactivate() and econf_plugin_activate()
 * work as usual, but each rejoin activates the plugin again. After econf_plugin_close(),
 * econf_supervisor_process() returns 0, and only econf_supervisor_destroy() remains to be called.
 *
 * Threads. All calls are made on one thread, that of the loop, except econf_supervisor_post() and
 * econf_supervisor_stop(). No thread is started, and no signal is used. A process has at most one
 * supervisor. In a child made by fork(), econf_supervisor_process() returns -1, and
 * econf_supervisor_destroy() releases the child's copies without affecting the parent's plugin.
 *
 * Callbacks, including joined(), lost() and posted work, may call anything in this header, also
 * stop and destroy. Inside them econf_supervisor_process() does nothing and returns 1.
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

/* A supervisor. It is opaque. */
typedef struct _econf_supervisor econf_supervisor_t;

/* How a plugin is supervised. Zero selects the default. Times are in milliseconds; negative ones
 * count as 0. */
typedef struct _econf_supervisor_options {
    int start_mode;   /* of every activation, see econf_plugin_activate() */
    int join_limit;   /* for all of connecting, registering and activating; 0: 5000 */
    int answer_limit; /* for each later request, whatever arrives meanwhile; 0: 300000 */
    int retry_first;  /* the first pause between attempts to join, 0: 100; it doubles each time */
    int retry_most;   /* the longest pause; 0: 30000. Each pause is shortened at random by up to a
                         half, so that not all plugins rejoin at the same moment */

    /*
     * Called after each join, once the plugin is active and before any request of the daemon is
     * handled; may be null. A pull made here is complete: later changes arrive as changes. This is
     * the place to compare the daemon's configuration with the plugin's own state, since no
     * callback reports what was removed while the plugin was away.
     */
    void (*joined)(void *user);

    /*
     * Called once for each joined(), when the connection ends, except by econf_supervisor_destroy()
     * or econf_plugin_close(); may be null. `why` describes the cause, and is valid during the
     * call. Requests fail here. The supervisor then tries to rejoin.
     */
    void (*lost)(void *user, const char *why);

    void *user; /* passed to both */
} econf_supervisor_options_t;

/*
 * Creates the supervisor of this process for the plugin `name`. It does not connect and does not
 * block: the first econf_supervisor_process() connects, and the descriptor is readable at once for
 * that. `options` may be null. Name, records, their paths and options are copied.
 * Returns the supervisor, to be released by econf_supervisor_destroy(). Returns null if name or
 * info are null, if the process already has a supervisor or a plugin, if it is the daemon itself
 * (hooks are installed: plugin code there needs no connection), or if memory or descriptors are
 * exhausted. The debug file has the cause.
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
 * Does all pending work: runs posted work, joins when it is time, handles up to 64 requests of the
 * daemon, notices the end of the connection. If work is left, the descriptor becomes readable
 * again. Call it whenever the descriptor is readable; extra calls do no harm. Apart from what
 * callbacks do, it blocks only while it joins, and for at most join_limit.
 * Returns
 *    1  call it again when the descriptor is readable; also while there is no daemon
 *    0  it is over: the daemon has kicked the plugin off (after kick_off() was called and the
 *       daemon got its answer), econf_supervisor_stop() or econf_plugin_close() was called, or a
 *       callback destroyed the supervisor. Later calls return 0, too
 *   -1  for null, in a child made by fork(), and when the descriptor no longer works
 */
int econf_supervisor_process(econf_supervisor_t *supervisor);

/*
 * A loop for programs without one: waits on the descriptor and calls econf_supervisor_process()
 * until that returns 0 or -1, and returns that. Signals do not end it; a handler calls
 * econf_supervisor_stop() to do so. Returns -1 inside a callback.
 */
int econf_supervisor_run(econf_supervisor_t *supervisor);

/*
 * Queues work(arg) for the thread of the loop. The next econf_supervisor_process() calls it, in the
 * order of posting; work that is posted by work waits for the call after that. `arg` stays the
 * caller's. May be called from any thread, but not from a signal handler, nor during or after the
 * destruction of the supervisor. Work is done whether or not the plugin is joined. After a stop,
 * and when the supervisor is destroyed, queued work is discarded without being called.
 * Returns 0, or -1 for null, in a child made by fork(), or without memory.
 */
int econf_supervisor_post(econf_supervisor_t *supervisor, void (*work)(void *arg), void *arg);

/*
 * Makes the descriptor readable, and econf_supervisor_process() return 0 from now on. A request
 * that waits for its reply keeps waiting. The plugin stays registered until the supervisor is
 * destroyed. May be called from any thread and any signal handler, any number of times; preserves
 * errno. Null is ignored.
 */
void econf_supervisor_stop(econf_supervisor_t *supervisor);

/*
 * Why the plugin is not joined, as text for humans: there is no daemon, this user may not connect,
 * the daemon refused (with its text), it does not answer, how the connection ended, the plugin was
 * kicked off or closed; for null, that there is no supervisor. "" while it is joined. Never null;
 * valid until the next econf_supervisor_process() or _destroy().
 *
 *     if (*econf_supervisor_reason(s) != '\0')
 *         fprintf(stderr, "demo: %s\n", econf_supervisor_reason(s));
 */
const char *econf_supervisor_reason(econf_supervisor_t *supervisor);

/*
 * Closes the plugin and releases everything. lost() is not called. May be called from any callback:
 * the current request is then not answered, and the surrounding econf_supervisor_process() returns
 * 0. Null is ignored.
 */
void econf_supervisor_destroy(econf_supervisor_t *supervisor);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
