/*
 * conf_plugin.h - what lies beneath the plugin interface: context and registry, message-level
 * calls, endpoint paths, and the calls of the daemon itself.
 *
 * Plugins need conf_api.h only. This header is for the daemon, for agents, for tools and for tests.
 *
 * Threads: the message-level calls keep no state and may be called from any thread on documents and
 * buffers that the thread owns. The registry, the endpoint paths and the hooks are not locked;
 * conf_agent_build_session() and conf_agent_service_enable() look up users and groups in the way of
 * the C library, one thread at a time.
 */
#ifndef CONF_PLUGIN_H
#define CONF_PLUGIN_H

#include "conf_api.h"
#include "conf_buffer.h"
#include "conf_def.h"
#include "conf_hash.h"

#include <libxml/tree.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- Context and registry of a process ----------------------------------------------------- */

/* Stores callbacks of every kind in one table; converted back to the real type when called. */
typedef int (*econf_subpub_cb_t)(int);

/* The plugin of this process: one block, the callback table at its end. */
typedef struct _conf_plugin_context {
    int version;             /* callback signatures: 2, or 1 for the older interface */
    char *name;              /* copy of the plugin's name */
    u32_t bit_activate : 1;  /* 1 while the plugin is activated */
    int sock;                /* the connected socket, non-blocking */
    u16_t rpc_id;            /* id of the next request; 1 to 65535, advanced by each message sent */
    int err_code;            /* error that the next reply carries; 0 for none */
    char *err_msg;           /* its text: null, the shared default text, or a heap string */
    u32_t send_pos;          /* bytes of the first queued message already written */
    conf_buffer_t *recv_buf; /* bytes received and not yet taken apart */
    conf_buffer_t *send_buf; /* whole framed messages waiting to be written */
    u32_t cbs_nums;          /* slots of `cbs` in use */
    CONF_FLEXIBLE_ARRAY(econf_subpub_cb_t, cbs); /* slot 0: kick-off; then the callbacks by index */
} conf_plugin_context_t;

/*
 * The functions through which plugin code that runs inside the daemon reaches it directly: each is
 * called with the arguments of the call of that name in conf_api.h, on the caller's thread, and its
 * result is returned. What pull and locate store becomes the caller's; the data of push and
 * config_deployment stay the caller's. A null slot makes the calls that need it fail.
 */
typedef struct _confd_plugin_callback {
    int (*conf_plugin_locate)(bool_t old_flag, const char *path, xmlNode **position);
    int (*conf_plugin_pull)(bool_t old_flag, const char *path, xmlNode **result);
    int (*conf_plugin_push)(const char *path, xmlNode *data);
    int (*conf_plugin_config_deployment)(const char *path, int oper, xmlNode *data);
    int (*conf_plugin_save_deployment)(void);
    int (*conf_plugin_copy_running_to_deployment)(int override_flag);
    void (*conf_plugin_error)(int err_code, const char *err_msg);
    int (*conf_plugin_reply)(int session_id, xmlNode *rpc, xmlNode *data); /* obsolete */
} confd_plugin_callback_t;

/*
 * The registry record of a process. It lives inside a hash entry, behind a key of any length, so
 * it may stand at any address.
 */
typedef struct __attribute__((packed)) _conf_plugin_data {
    conf_plugin_context_t *plugin_ctxt;   /* set in a process that registered a plugin */
    confd_plugin_callback_t *confd_hooks; /* set in a process that injected its hooks */
} conf_plugin_data;

/* The records of this process and of the processes that it was forked from; null at first. */
extern conf_hash_tbl_t *g_plugin_hash;

/*
 * The record of the calling process, made empty when there is none. Valid until it is deleted.
 * Returns null when it cannot be made.
 */
conf_plugin_data *get_plugin_from_hash(void);

/* Deletes the record of the calling process, if any; what it points to is not released. */
void del_plugin_from_hash(void);

/* The plugin context of the calling process, or null. */
conf_plugin_context_t *get_plugin_context(void);

/* The installed hooks of the calling process (the library's copy), or null. */
confd_plugin_callback_t *get_plugin_hooks(void);

/* ---- Building and taking apart messages ---------------------------------------------------- */

/*
 * Takes the first message out of `*buf`, which begins with a complete one, and parses it. The
 * message is gone from the buffer in every case, so a stream stays in step; the buffer may move.
 * Returns a new element that belongs to no document, to be released with xmlFreeNode(), or null
 * when the body is not well-formed XML, declares attributes or has more than 2000 in one tag, or
 * memory runs out. Logs the cause. A buffer without a complete message is left as it is, and gives
 * null.
 */
xmlNode *plugin_parse_message(conf_buffer_t **buf);

/*
 * Whether the byte may stand in a body: tab, line feed, carriage return and all from 32 up, those
 * of multi-byte characters included. Returns 1 or 0.
 */
bool_t is_valid_xmlchr(const char p);

/*
 * Builds the request <rpc><method/>PARAMS<id/></rpc>. Takes `params` over, also when it fails:
 * then it is wiped and freed. Returns the tree for the caller to release with xmlFreeNode(), or
 * null. When `params` belongs to a document, so does the tree, and is released before it.
 */
xmlNode *plugin_build_rpc_message(const char *method, xmlNode *params, u32_t id);

/*
 * Builds the reply <reply>RESULT<id/></reply>, where `result` is a "result" or an "error" element
 * that is taken over, also when the call fails. Returns a tree as plugin_build_rpc_message() does.
 */
xmlNode *plugin_build_reply_message(xmlNode *result, u32_t id);

/*
 * Splits a request. `*method` and `*params` point into `rpc`; both are null when it lacks one.
 * Returns 0, or -1 when an argument is null or the request lacks a method text or its parameters.
 */
int plugin_parse_rpc(xmlNode *rpc, const char **method, xmlNode **params);

/*
 * Splits a reply into the one of `*result` and `*error` that it holds; the other is null. Both
 * point into `reply`, and both are set after the failure of a reply that holds both.
 * Returns 0, or -1 when an argument is null or the reply holds both or neither.
 */
int plugin_parse_reply(xmlNode *reply, xmlNode **result, xmlNode **error);

/* The text of the first "message" child of an error element, or null; points into it. */
const char *plugin_get_reply_errmsg(xmlNode *error);

/* The number in the first "code" child of an error element, or -1. */
int plugin_get_reply_errcode(xmlNode *error);

/* The number in the first "id" child of a request or reply, or 0 for none. */
u32_t plugin_get_msgid(xmlNode *root);

/* ---- Endpoints of the daemon, forms of paths ----------------------------------------------- */

/* Paths of the daemon's sockets. In a socket address at most 107 characters are used. */
extern char g_conf_agent_socket[256];    /* at first /var/tmp/confd.agent.socket */
extern char g_conf_plugin_socket[256];   /* at first /var/tmp/confd.plugin.socket */
extern char g_conf_notifier_socket[256]; /* at first /var/tmp/confd.notifier.socket */

/*
 * Reads the daemon's profile, /dev/shm/yang_modules/confd.conf, a JSON object, and takes the three
 * socket paths from the directory named by its member "working-dir". `workding_dir` may be null;
 * otherwise the string that it holds is freed and replaced by a copy of the directory, which the
 * caller releases with free(); null when there is no memory for it. A profile without that member
 * changes nothing and is no error.
 * Returns 0, or -1 with everything as before.
 */
int conf_load_config(char **workding_dir);

/*
 * Conversions between the forms of a datastore path. Each returns a new string, to be released with
 * free(), or null for a null path and when memory runs out.
 *
 *   schema form     /mod-a:top/mod-a:item/mod-b:ext: a prefix on every node, no keys
 *   data form       /mod-a/top/item[name='x']/leaf: keys; prefixes, or the module in front
 *   standard form   /mod-a:top/item[name='x']/leaf: a prefix where the module changes
 *   database form   /mod-a/top/item[name='x']/leaf: standard form, the module as first segment
 */
char *plugin_path_schema2std(const char *schema_path); /* schema to standard form */
char *plugin_path_data2std(const char *data_path);     /* data to standard form */
char *plugin_path_std2db(const char *data_path);       /* data or standard to database form */

/* ---- Calls of the daemon ------------------------------------------------------------------- */

/*
 * Installs the hooks of this process, once: all slots are copied, and the calls of the plugin
 * interface made in this process reach them from then on.
 * Returns 0, or -1 for a null argument, when hooks are installed already and when memory runs out.
 */
int conf_plugin_init_api(confd_plugin_callback_t *api);

/*
 * Open the daemon's sockets at the three paths above, in place of a file that stands there, with
 * permissions 0660. The streams listen with a backlog of 8. The file of the agent socket goes to
 * the group "sudo" when there is one. While a call runs, the file-creation mask of the process is
 * 0117.
 * Each returns the socket, non-blocking and close-on-exec, or -1.
 */
int conf_plugin_service_enable(void);
int conf_agent_service_enable(void);
int conf_plugin_notifier_enable(void);

/* Close `sock`, when it is not negative, and remove the file of the socket in every case. */
void conf_plugin_service_disable(int sock);
void conf_agent_service_disable(int sock);
void conf_plugin_notifier_disable(int sock);

/* ---- Calls of agents ----------------------------------------------------------------------- */

/*
 * Connects to the daemon's agent socket, after reading the profile. Without a profile the present
 * path is used.
 * Returns the connected socket, blocking and close-on-exec, for the caller to release with
 * conf_agent_exit(): it writes its requests there and reads the answers, each framed with a
 * msg_head_t. Returns -1 on failure; the cause is in the system log.
 */
int conf_agent_init(void);

/* Closes `sock`, when it is not negative. */
void conf_agent_exit(int sock);

/*
 * Append one framed request to `*buffer`, which may move: that for a session, which names the user
 * of the process and the process id of its parent; that for the daemon's capabilities; and that for
 * notifications. The first fails for a user id without a name. The low 16 bits of the sequence
 * number go into the header; it is also the message-id of the first two requests, while that of a
 * subscription is always "subscribeNotification_1". Return 0, or -1 with the buffer as it was.
 *
 *     conf_buffer_t *requests = conf_buffer_create(0);
 *     if (requests != NULL && conf_agent_build_session(&requests, 1) == 0) {
 *         const size_t length = (size_t)conf_buffer_length(requests);
 *         sent = send(sock, conf_buffer_data(requests), length, MSG_NOSIGNAL);
 *     }
 *     conf_buffer_destroy(requests);
 */
int conf_agent_build_session(conf_buffer_t **buffer, int msg_seq);
int conf_agent_build_capability(conf_buffer_t **buffer, int msg_seq);
int conf_agent_build_notify_rpc(conf_buffer_t **buffer, int seq);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
