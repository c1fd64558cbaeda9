// The older plugin interface: thin layers over the newer one. What differs in the callbacks and
// replies is decided by the version in the context (loop.cpp, reply.cpp).
#include "plugin_internal.h"
#include "support/log.h"
#include "support/owners.h"
#include "xml.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/epoll.h>

// The older records are handed to the newer calls as they are.
#define SAME_PLACE(older, older_member, newer, newer_member)                                       \
    static_assert(offsetof(older, older_member) == offsetof(newer, newer_member))
SAME_PLACE(conf_plugin_info_t, config_cbs, econf_plugin_subpub_info_t, config_cbs);
SAME_PLACE(conf_plugin_info_t, status_cbs, econf_plugin_subpub_info_t, status_cbs);
SAME_PLACE(conf_plugin_info_t, rpc_cbs, econf_plugin_subpub_info_t, operate_cbs);
SAME_PLACE(conf_plugin_info_t, kickoff, econf_plugin_subpub_info_t, kick_off);
SAME_PLACE(config_callback_t, priority, econf_config_cb_info_t, priority);
SAME_PLACE(config_callback_t, config_cb, econf_config_cb_info_t, callback);
SAME_PLACE(status_callback_t, status_cb, econf_status_cb_info_t, callback);
SAME_PLACE(rpc_callback_t, rpc_cb, econf_operate_cb_info_t, callback);

namespace {

int pull_value(int old_flag, const char *path, conf_val_t *val)
{
    if (path == nullptr || val == nullptr) {
        LOG_FILE_ERROR("Input parameters error(path=%p, val=%p).", static_cast<const void *>(path),
                       static_cast<void *>(val));
        return -1;
    }
    val->data = nullptr;
    xmlNode *pulled = nullptr;
    if (econf_plugin_pull(old_flag, path, &pulled) != 0 || pulled == nullptr) {
        return 0; // a failed read and an empty one look the same
    }
    wiped_list list(pulled);
    node_ptr data(new_element("data"));
    if (!data) {
        LOG_FILE_ERROR("Create <data> node failed.");
        return -1;
    }
    data->doc = list->doc; // of a hook's list, whose strings may stand in its dictionary
    if (!add_children(data.get(), list.get())) {
        LOG_FILE_ERROR("Add <data> children node failed.");
        return -1;
    }
    (void)list.release();
    val->data = data.release();
    return 0;
}

xmlNode *pull_list(int old_flag, const char *path)
{
    xmlNode *list = nullptr;
    (void)econf_plugin_pull(old_flag, path, &list);
    return list;
}

// Serves the plugin until the wait ends, with the cause logged, or the context is gone: its socket
// has then left the epoll instance, and nothing would wake the wait again.
void serve(const support::unique_fd &epoll, const context_guard &guard)
{
    while (!guard.is_gone()) {
        epoll_event event{};
        const int count = epoll_wait(epoll.get(), &event, 1, -1);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            LOG_FILE_ERROR("Epoll wait failed(%s).", std::strerror(errno));
            return;
        }
        if ((event.events & (EPOLLERR | EPOLLHUP | EPOLLRDHUP)) != 0) {
            LOG_FILE_ERROR("An error epoll event occur(0x%x).", event.events);
            return;
        }
        econf_plugin_run();
    }
}

int run_blocking(const conf_plugin_data *plugin)
{
    const conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    if (ctxt == nullptr) {
        LOG_FILE_ERROR("Plugin context is not ready.");
        return -1;
    }
    const context_guard guard(ctxt);
    const support::unique_fd epoll = watch_socket(ctxt->sock, EPOLLIN | EPOLLRDHUP | EPOLLET);
    if (!epoll) {
        return -1;
    }
    if (conf_buffer_length(ctxt->recv_buf) > 0) {
        econf_plugin_run(); // no event comes for what has been read already
    }
    serve(epoll, guard);
    return 0;
}

} // namespace

conf_context_t *conf_plugin_init(char *name, conf_plugin_info_t *plugin_info)
{
    if (econf_plugin_init(name, reinterpret_cast<econf_plugin_subpub_info_t *>(plugin_info)) < 0) {
        return nullptr;
    }
    conf_plugin_context_t *ctxt = get_plugin_context();
    if (ctxt != nullptr) {
        ctxt->version = 1;
    }
    return reinterpret_cast<conf_context_t *>(ctxt);
}

int conf_start_session(conf_context_t * /*ctxt*/, int with_cfgr)
{
    return econf_plugin_activate(with_cfgr);
}

int conf_run(conf_context_t * /*ctxt*/, int with_block)
{
    const conf_plugin_data *plugin = get_plugin_from_hash();
    if (plugin == nullptr) {
        return -1;
    }
    if (with_block == 0) {
        econf_plugin_run();
        return 0;
    }
    return run_blocking(plugin);
}

int conf_plg_get_hconf(conf_context_t * /*ctxt*/)
{
    const conf_plugin_context_t *ctxt = get_plugin_context();
    return ctxt == nullptr ? -1 : ctxt->sock;
}

int conf_plugin_close(conf_context_t * /*ctxt*/)
{
    econf_plugin_close();
    return 0;
}

xmlNode *conf_get_config(const char *path)
{
    return pull_list(0, path);
}

xmlNode *conf_get_old_config(const char *path)
{
    return pull_list(1, path);
}

int conf_set_config(const char *path, xmlNode *data)
{
    return econf_plugin_push(path, data);
}

int conf_set_error(int err_code, const char *err_msg)
{
    econf_plugin_error(err_code, err_msg);
    return 0;
}

int conf_plg_get_value(conf_context_t * /*ctxt*/, char *path, conf_val_t *val)
{
    return pull_value(0, path, val);
}

int conf_plg_get_old_value(conf_context_t * /*ctxt*/, char *path, conf_val_t *val)
{
    return pull_value(1, path, val);
}

int conf_plg_set_value(conf_context_t * /*ctxt*/, int /*oper*/, char *path, conf_val_t *val)
{
    if (path == nullptr || val == nullptr) {
        LOG_FILE_ERROR("Input parameters error(path=%p, val=%p).", static_cast<const void *>(path),
                       static_cast<void *>(val));
        return -1;
    }
    return econf_plugin_push(path, val->data);
}

int conf_plg_set_error(conf_context_t * /*ctxt*/, int err_code, char *err_msg)
{
    econf_plugin_error(err_code, err_msg);
    return 0;
}

int conf_recovery_status(void)
{
    return g_rdb_recovery_status;
}

int conf_send_reply(int session_id, xmlNode *rpc, xmlNode *data)
{
    LOG_FILE_ERROR("WARN: conf_send_reply is obsolete.");
    const conf_plugin_data *plugin = get_plugin_from_hash();
    if (plugin == nullptr) {
        LOG_FILE_ERROR("Can not get plugin information on reply.");
        return -1;
    }
    const confd_plugin_callback_t *hooks = plugin->confd_hooks;
    if (hooks == nullptr || hooks->conf_plugin_reply == nullptr) {
        return -1;
    }
    return hooks->conf_plugin_reply(session_id, rpc, data);
}
