/*
 * conf_api.h - the interface for plugins: the processes that take part in the configuration
 * service.
 *
 * A plugin registers once with its name and tables of callbacks, activates, and then calls
 * econf_plugin_run() whenever its socket is readable. Every request of the daemon becomes one call
 * of a callback, and every call is answered with one reply.
 *
 *     static int on_settings(int session_id, int oper, int more, int priority, const char *path)
 *     {
 *         return 0;                        // anything else refuses the change
 *     }
 *
 *     econf_config_cb_info_t configs[] = {{"/demo:settings", 10, on_settings}, {NULL, 0, NULL}};
 *     econf_plugin_subpub_info_t info = {configs, NULL, NULL, NULL};
 *
 *     struct pollfd fd = {econf_plugin_init("demo", &info), 0, 0};
 *     if (fd.fd < 0 || econf_plugin_activate(ACTIVATE_WITH_NONE) != 0)
 *         return 1;
 *     int active = 1; // 0 while the plugin has deactivated itself
 *     for (;;) {
 *         fd.events = active ? POLLIN | POLLRDHUP : POLLRDHUP; // POLLRDHUP needs _GNU_SOURCE
 *         if (poll(&fd, 1, -1) < 0 || (fd.revents & (POLLERR | POLLHUP | POLLRDHUP)) != 0)
 *             break;
 *         econf_plugin_run();
 *     }
 *     econf_plugin_close();
 *
 * An inactive plugin watches for hang-up only: requests wait in the socket until it activates, and
 * a loop that waits for input would spin meanwhile.
 *
 * Texts, names, paths and XML are UTF-8. What goes onto the wire is always well-formed: a request
 * that is not fails at once with -1. In an answer, which the daemon waits for, each byte that is no
 * part of a UTF-8 character becomes U+FFFD, and output that XML cannot hold otherwise is replaced
 * by an error. A control character, which XML cannot hold, becomes a space in both.
 *
 * Threads: a process has one plugin. Registration, activation, the loop and the requests share its
 * socket and buffers without locks and are called from one thread; callbacks run on that thread,
 * one at a time, in the order in which the requests arrived. Notifications are the exception: they
 * may be sent from any thread, except while econf_plugin_init() runs, which reads their address; a
 * process that never registers calls xmlInitParser() before its threads send.
 *
 * Callbacks return: they throw nothing and do not leave by longjmp(). Every call that meets XML
 * clears libxml2's last error (xmlGetLastError()) and leaves its error handlers as they are.
 *
 * A child made by fork() has no plugin of its own until it registers one.
 *
 * Failures are reported in the debug file, once econf_plugin_config_debug() has turned it on, or in
 * the system log: those of conf_notify_nonblock() and of what lies beneath (conf_debug.h). errno is
 * no part of any result, and calls that succeed may change it, too. Only after a failed connection
 * does econf_plugin_init() leave the cause there, that of connect(): ENOENT or ECONNREFUSED when
 * there is no daemon, EACCES when this user may not reach it.
 */
#ifndef CONF_API_H
#define CONF_API_H

#include "conf_debug.h"
#include "conf_def.h"

#include <libxml/tree.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* What happened to the configuration under a path: bits, combined, as the daemon sends them. */
enum _ECONF_CONFIG_OPER_TYPE {
    CONFIG_OP_NONE = 0,         /* also when the daemon names none */
    CONFIG_OP_ADD = 1,          /* the node is new */
    CONFIG_OP_RM = 2,           /* the node is gone */
    CONFIG_OP_MOD = 4,          /* something in the node or below it differs */
    CONFIG_OP_CHAIN = 8,        /* follows from another change; confsim never sends it */
    CONFIG_OP_MOVE = 16,        /* new place among its siblings; see econf_plugin_locate() */
    CONFIG_OP_CFGR = 16384,     /* part of the configuration sent after a start with-cfgr */
    CONFIG_OP_ROLLBACK = 32768, /* takes back a change that was applied before */
    CONFIG_OP_SMOOTH = 65536,   /* part of the configuration sent after a start with-smooth */
    CONFIG_OP_ERROR = -1        /* for callers; the library neither sends nor looks for it */
};

/* How a plugin starts; see econf_plugin_activate(). */
enum _ECONF_PLUGIN_ACTIVATE_MODE {
    ACTIVATE_WITH_NONE = 0,  /* later changes alone */
    ACTIVATE_WITH_CFGR = 1,  /* the configuration first, to be applied from nothing */
    ACTIVATE_WITH_SMOOTH = 2 /* the configuration first, to be compared with what is in force */
};

/*
 * A configuration change under a subscribed path.
 *   session_id  session that made the change; -1 when the daemon named none
 *   oper        combination of _ECONF_CONFIG_OPER_TYPE bits
 *   more        as the daemon sends it: not 0 when further changes of the same commit follow
 *   priority    priority of the change
 *   path        the changed path, the quoting of its key values removed, as in
 *               /demo:list/entry[name=a]; a value that holds "]", ",", a backslash or a quote keeps
 *               its quotes. May be null; valid only during the call
 * Returns 0 to accept. Any other value refuses the change: it becomes the code of the error reply,
 * with the text "Service process failed.", unless the callback recorded an error of its own with
 * econf_plugin_error().
 */
typedef int (*econf_config_cb_t)(int session_id, int oper, int more, int priority,
                                 const char *path);

/*
 * A request for status data.
 *   session_id    session that asks; -1 when the daemon named none
 *   path, filter  as sent by the daemon, each may be null; valid only during the call. The form of
 *                 a filter is a matter between daemon and plugin, the library hands its text on; a
 *                 filter made of elements has none and arrives as null
 *   status        where to store the status node (or the first of a list); the library frees it.
 *                 A node that still hangs in a tree of the plugin's own is copied, and stays the
 *                 plugin's. Left null, the reply carries empty data.
 * Returns 0, or an error code as for econf_config_cb_t; then a stored node is freed as well.
 */
typedef int (*econf_status_cb_t)(int session_id, const char *path, const char *filter,
                                 xmlNode **status);

/*
 * A call of an operation.
 *   session_id  session that calls; -1 when the daemon named none
 *   input       first input node, with its siblings, or null; belongs to the library and is valid
 *               only during the call
 *   output      where to store the first output node, with its siblings; the library frees the
 *               list. A list that still hangs in a tree, such as the input itself, is copied
 *               instead. Left null, the reply says "ok".
 * Returns 0, or an error code as for econf_config_cb_t; then stored output is freed as well.
 */
typedef int (*econf_operate_cb_t)(int session_id, xmlNode *input, xmlNode **output);

/*
 * A subscription to the configuration under `path`, which also decides what one call is about: the
 * path of a container gets one call for all that changed below it in a commit, that of a list one
 * call for each entry, that of a leaf one for that leaf. Of the subscribers to a commit those with
 * the smaller priority are called first.
 */
typedef struct _econf_config_cb_info {
    const char *path; /* null ends the array */
    int priority;
    econf_config_cb_t callback;
} econf_config_cb_info_t;

/* A status path that the plugin answers for. */
typedef struct _econf_status_cb_info {
    const char *path; /* null ends the array */
    econf_status_cb_t callback;
} econf_status_cb_info_t;

/* An operation that the plugin serves. */
typedef struct _econf_operate_cb_info {
    char *path; /* name of the operation; null ends the array */
    econf_operate_cb_t callback;
} econf_operate_cb_info_t;

/* All that a plugin registers; each member may be null. */
typedef struct _econf_plugin_subpub_info {
    econf_config_cb_info_t *config_cbs;
    econf_status_cb_info_t *status_cbs;
    econf_operate_cb_info_t *operate_cbs;
    void (*kick_off)(void); /* called when the daemon kicks the plugin off */
} econf_plugin_subpub_info_t;

/* ---- Registering, activating and serving a plugin ------------------------------------------- */

/*
 * Connects to the daemon, without retry, and registers the plugin `name` with its callbacks.
 * Blocks until the daemon has answered: with a daemon that hangs about 300 seconds, and longer when
 * signals interrupt the wait. While the daemon accepts no connection and its queue of them is full,
 * the call blocks in connect() without a limit, until a signal ends it with -1. The records stay
 * the caller's and are not needed afterwards, only the functions are kept.
 *
 * Paths and operation names go onto the wire as XML content without escaping: they hold no "&" or
 * "<" that is not meant as such. The name is escaped.
 *
 * Returns the connected socket, non-blocking and close-on-exec, which stays the library's: watch it
 * for input and hang-up, do not read, write or close it. Returns -1 when the arguments are null,
 * when the process has a plugin or injected hooks already, when the daemon is not there and when it
 * refuses; nothing is left behind, and the call may be repeated.
 */
int econf_plugin_init(const char *name, econf_plugin_subpub_info_t *cb_info);

/*
 * Closes the socket and releases the plugin. The daemon learns of it from the socket; nothing is
 * sent. May be called from a callback: the request being handled is then not answered.
 */
void econf_plugin_close(void);

/*
 * Tells the daemon that the plugin is ready. `start_mode` is a value of
 * _ECONF_PLUGIN_ACTIVATE_MODE: with ACTIVATE_WITH_CFGR or ACTIVATE_WITH_SMOOTH the daemon is asked
 * for its present configuration first, as additions that carry the bit CONFIG_OP_CFGR or
 * CONFIG_OP_SMOOTH. Choose CFGR when the plugin starts from nothing, as after a boot, and has to
 * apply everything; refusals are then counted in g_rdb_recovery_status. Choose SMOOTH when what it
 * has configured outlived it, and is to be compared with what arrives instead of disturbed. Neither
 * tells what was removed meanwhile. Any other value is taken as ACTIVATE_WITH_NONE.
 * Requests that the daemon sends with its answer are not lost: the socket stays readable.
 * Returns 0, or -1 when there is no plugin, when it is active already and when the daemon refuses.
 */
int econf_plugin_activate(int start_mode);

/*
 * Tells the daemon that the plugin is no longer ready; connection and registration stay. The plugin
 * stays active when the daemon refuses. May be called from a callback.
 */
void econf_plugin_deactivate(void);

/*
 * Handles every request that has arrived whole: calls its callback and sends its reply. Returns
 * when nothing complete is left and the socket would block; it never waits for input. Suits
 * edge-triggered as well as level-triggered waiting. A closed connection is not reported here:
 * watch the socket for hang-up and error events.
 *
 * A callback may make requests of its own, and may deactivate, close or close and re-initialise the
 * plugin.
 */
void econf_plugin_run(void);

/* ---- Requests to the daemon ----------------------------------------------------------------- */

/*
 * Requests to the daemon. They are made while the plugin is active, also from its callbacks, and
 * block until the daemon has answered: about 300 seconds without any sign of it, and without a
 * signal that interrupts the wait, end them. In the process of the daemon itself, once it has
 * injected its hooks, each call goes to the matching hook instead, with the same arguments and
 * results.
 *
 * +-----------------------------------------------------------------------------------------------+
 * | A request that is made outside of a callback LOSES what the daemon sends until the reply is   |
 * | there: a change, a status request or a call of an operation is dropped, the daemon waits for  |
 * | its answer in vain, and may refuse everything else meanwhile. A warning in the debug file     |
 * | names each of them. Inside of a callback nothing is lost, for the daemon waits for it.        |
 * +-----------------------------------------------------------------------------------------------+
 *
 * So do not push from a timer what somebody might ask for: answer for it.
 *
 *     static int on_counters(int session_id, const char *path, const char *filter,
 *                            xmlNode **status)
 *     {
 *         *status = count();               // fresh, whenever somebody wants to know
 *         return 0;
 *     }
 *
 * And do not pull the configuration after activation, when changes may come already: activate with
 * ACTIVATE_WITH_CFGR or ACTIVATE_WITH_SMOOTH, and it arrives as changes.
 *
 * Each returns 0, or -1 when an argument is null, when there is no active plugin, when the hook is
 * missing, when the exchange fails and, where the daemon can refuse, when it does.
 */

/*
 * Reads the configuration under `path`: the present one, or with `old_flag` not 0 the one before
 * the change. `*result` receives a list of nodes that the caller releases with xmlFreeNodeList(),
 * or null when there is nothing, also when the daemon answers with an error. It is null after every
 * failure. To tell "nothing" from "refused", pull what is known to exist, such as the container
 * above: null is then a refusal.
 *
 * A list released that way is not overwritten. Where it may hold secrets, the caller releases it
 * with econf_node_free_list() (conf_values.h), which wipes it first.
 *
 *     xmlNode *list = NULL;
 *     if (econf_plugin_pull(0, "/demo:settings", &list) == 0 && list != NULL)
 *         apply(list);
 *     xmlFreeNodeList(list);
 */
int econf_plugin_pull(int old_flag, const char *path, xmlNode **result);

/*
 * Finds where the entry at `path` stands among its siblings: in the present configuration, or with
 * `old_flag` not 0 in the one before the change. `*position` receives a list that the caller
 * releases like that of econf_plugin_pull(); its elements `prev` and `next` hold paths, the quoting
 * of their key values removed. At either end of the list one of them is missing.
 */
int econf_plugin_locate(int old_flag, const char *path, xmlNode **position);

/* Publishes a copy of `data` and the siblings that follow it under `path`. */
int econf_plugin_push(const char *path, xmlNode *data);

/*
 * Stages `data` and the siblings that follow it in the deployment store: `oper` 0 adds, 1 deletes,
 * any other value updates. A copy is sent; the list stays the caller's.
 */
int econf_plugin_config_deployment(const char *path, int oper, xmlNode *data);

/* Saves the deployment store. */
int econf_plugin_save_deployment(void);

/*
 * Has the daemon copy between the running configuration and the deployment store; `override_flag` 1
 * asks it to overwrite, any other value does not.
 */
int econf_plugin_copy_running_to_deployment(int override_flag);

/* ---- Errors of callbacks -------------------------------------------------------------------- */

/*
 * Records the error that the answer to the request being handled carries: `err_code` and a copy of
 * `err_msg`, or the text "Service process failed." when it is null. A later call replaces an
 * earlier one, and a callback that returns 0 discards it. Code 0 answers with success. Needs an
 * active plugin, also inside a callback; otherwise nothing happens. In the process of the daemon
 * itself the error goes to its hook.
 */
void econf_plugin_error(int err_code, const char *err_msg);

/* Number of configuration callbacks so far that refused a change with the bit CONFIG_OP_CFGR. */
extern int g_rdb_recovery_status;

/* ---- Notifications -------------------------------------------------------------------------- */

/*
 * Sends the element `data` and its subtree as a notification: one datagram, whose text has no
 * terminating zero byte. `data` stays the caller's; `name` only identifies it in failure messages.
 * Needs no registration, but the address: a process that never registers calls conf_load_config()
 * first (conf_plugin.h), or the notification goes to /var/tmp/confd.notifier.socket. Blocks while
 * the daemon's queue is full, and without a limit when the daemon hangs. The largest notification
 * is what a socket can send at once, 212,960 bytes where net.core.wmem_default is 212992; beyond
 * that the call fails, and so it does when the element is not UTF-8.
 * Returns 0 when the datagram was sent, else -1.
 */
int econf_notify(const char *name, xmlNode *data);

/* Sends the text `data`, its terminating zero byte included; otherwise as econf_notify(). */
int conf_notify(char *name, char *data);

/*
 * Sends the text `data` without blocking in the send: in up to five attempts, with a sleep of 5
 * seconds after each that found the daemon's queue full. So the call may take 25 seconds: where
 * that is too long, make it in a thread of its own.
 * Returns 0 when the datagram was sent, and also when it was given up because the queue stayed full
 * (a warning in the system log says so); -1 on every other failure.
 */
int conf_notify_nonblock(char *name, char *data);

/* ---- The older interface -------------------------------------------------------------------- */

/*
 * Plugins written for the older calls run unchanged: each call is a thin layer over one of those
 * above. What differs are the callbacks, which get no session; a status reply, which holds no path;
 * and the output of an operation, whose children are sent instead of the node itself. Failures of
 * configuration callbacks are not counted in g_rdb_recovery_status.
 *
 * The handle that the calls take is not used by any of them: a process has one plugin.
 */

/*
 * The callbacks. Arguments and results are those of econf_config_cb_t, econf_status_cb_t and
 * econf_operate_cb_t without the session; paths and filters may be written to during the call. What
 * `*output` receives is a wrapper: its children are sent, and it is freed with them.
 */
typedef int (*conf_config_cb_t)(int oper, int more, int priority, char *path);
typedef int (*conf_status_cb_t)(char *path, char *filter, xmlNode **status);
typedef int (*conf_operate_cb_t)(xmlNode *input, xmlNode **output);

/* Entries of the tables; a null path or name ends the array. */
typedef struct _config_callback {
    char *path;
    int priority;
    conf_config_cb_t config_cb;
} config_callback_t;

typedef struct _status_callback {
    char *path;
    conf_status_cb_t status_cb;
} status_callback_t;

typedef struct _rpc_callback {
    char *rpc_name;
    conf_operate_cb_t rpc_cb;
} rpc_callback_t;

/* All that an older plugin registers; the first four members match econf_plugin_subpub_info_t. */
typedef struct _conf_plugin_info {
    config_callback_t *config_cbs;
    status_callback_t *status_cbs;
    rpc_callback_t *rpc_cbs;
    void (*kickoff)(void);
    void (*uninstall)(char *name); /* never called by the library */
} conf_plugin_info_t;

/* The handle of an older plugin; no member is used. */
typedef struct _conf_context {
    int stub;
} conf_context_t;

/* Holds what conf_plg_get_value() reads: an element "data" with the configuration below it. */
typedef struct _conf_val {
    xmlNode *data;
} conf_val_t;

/* econf_plugin_init(). Returns a handle, which stays the library's, or null instead of -1. */
conf_context_t *conf_plugin_init(char *name, conf_plugin_info_t *plugin_info);

/* econf_plugin_activate() with `with_cfgr` as start mode; the same result. */
int conf_start_session(conf_context_t *ctxt, int with_cfgr);

/*
 * With `with_block` 0: econf_plugin_run() once. Else serves the plugin until the daemon hangs up,
 * the wait fails, or a callback closes the plugin.
 * Returns 0, or -1 when there is no plugin to wait for or the wait cannot be set up.
 */
int conf_run(conf_context_t *ctxt, int with_block);

/* The plugin's socket, to be watched by a loop of the caller's own; -1 when there is no plugin. */
int conf_plg_get_hconf(conf_context_t *ctxt);

/* econf_plugin_close(); always returns 0. */
int conf_plugin_close(conf_context_t *ctxt);

/*
 * The present and the old configuration under `path`: a list for the caller to release with
 * econf_node_free_list(), which wipes it, or xmlFreeNodeList(); null when there is nothing and on
 * failure.
 */
xmlNode *conf_get_config(const char *path);
xmlNode *conf_get_old_config(const char *path);

/* econf_plugin_push(); the same result. */
int conf_set_config(const char *path, xmlNode *data);

/* econf_plugin_error(); always returns 0. */
int conf_set_error(int err_code, const char *err_msg);

/*
 * As conf_get_config() and conf_get_old_config(), the list being put below an element "data" in
 * `val`, for the caller to release with xmlFreeNode(); null when there is nothing or the read
 * fails, which both count as success. Return 0, or -1 when an argument is null or the element
 * cannot be made.
 */
int conf_plg_get_value(conf_context_t *ctxt, char *path, conf_val_t *val);
int conf_plg_get_old_value(conf_context_t *ctxt, char *path, conf_val_t *val);

/* econf_plugin_push() of the node in `val`; `oper` is not used. Returns -1 for a null argument. */
int conf_plg_set_value(conf_context_t *ctxt, int oper, char *path, conf_val_t *val);

/* econf_plugin_error(); always returns 0. */
int conf_plg_set_error(conf_context_t *ctxt, int err_code, char *err_msg);

/* The value of g_rdb_recovery_status. */
int conf_recovery_status(void);

/*
 * Obsolete: hands a reply to the hook of the daemon's own process. Fails everywhere else, with -1.
 */
int conf_send_reply(int session_id, xmlNode *rpc, xmlNode *data);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
