// The event loop: takes one request of the daemon after the other from the socket, turns each into
// one call of a callback, and answers it.
//
// A callback may do anything to the plugin: deactivate it, close it, close it and register again,
// or fork. So after every callback the context is looked up again, and when it is no longer the one
// that the request came for, the request is dropped and the loop returns without touching it.
//
// Relies on frame.cpp and envelope.cpp for requests, on reply.cpp for the answers.
#include "conf_misc.h"
#include "plugin_internal.h"
#include "reply.h"
#include "support/bounded.h"
#include "support/decimal.h"
#include "support/log.h"

#include <cstring>
#include <utility>

int g_rdb_recovery_status = 0;

namespace {

constexpr int no_session = -1;
constexpr int no_callback = -1;

// Reads a number when the element has text; else the default stays.
void read_number(xmlNode *node, int *number)
{
    if (const char *text = conf_get_node_content(node)) {
        *number = support::decimal_int(text);
    }
}

// ---- callbacks ---------------------------------------------------------------------------------

// The callback of an index, or null with what is wrong recorded.
econf_subpub_cb_t find_callback(const daemon_request &request, callback_kind kind, int index)
{
    const conf_plugin_context_t *ctxt = request.plugin->plugin_ctxt;
    const econf_subpub_cb_t callback = announced_callback(ctxt, kind, index);
    if (callback == nullptr) {
        const bool in_table = index >= 0 && static_cast<u32_t>(index) < ctxt->cbs_nums;
        _plugin_set_error(request.plugin, -1, "%s",
                          in_table ? "Cann't find the callback function."
                                   : "Callback index is invalid.");
    }
    return callback;
}

// A text of the request that a callback is given. It is wiped whole, also when the callback has cut
// it; the wiping of the request ends where the text does.
class given_text {
public:
    explicit given_text(const char *text)
        : text_(const_cast<char *>(text)), length_(text == nullptr ? 0 : std::strlen(text))
    {
    }
    ~given_text()
    {
        if (text_ != nullptr) {
            support::wipe(text_, length_);
        }
    }
    given_text(const given_text &) = delete;
    given_text &operator=(const given_text &) = delete;

private:
    char *text_;
    std::size_t length_;
};

template <typename signature, typename... arguments>
int call(econf_subpub_cb_t callback, arguments... given)
{
    return function_cast<signature>(callback)(given...);
}

using kick_off_cb = void (*)();

// A refusal that the callback has not described itself gets the default text.
void record_refusal(conf_plugin_data *plugin, int result)
{
    if (plugin->plugin_ctxt->err_msg == nullptr) {
        _plugin_set_error(plugin, result, nullptr);
    }
}

// ---- configuration -----------------------------------------------------------------------------

struct config_change {
    int oper = 0;
    int more = 0;
    int priority = 0;
    char *path = nullptr; // inside the request
};

config_change read_change(xmlNode *info)
{
    config_change change;
    for (xmlNode *child = info->children; child != nullptr; child = child->next) {
        if (is_element(child, "oper-type")) {
            read_number(child, &change.oper);
        } else if (is_element(child, "more-flag")) {
            read_number(child, &change.more);
        } else if (is_element(child, "priority")) {
            read_number(child, &change.priority);
        } else if (is_element(child, "path")) {
            change.path = const_cast<char *>(conf_get_node_content(child));
        }
    }
    (void)datastore_path_rm_quotes(change.path);
    return change;
}

// By way of double, which holds it exactly: 32-bit processors have no instruction for it, and the
// compiler's function is ten times the size.
float to_float(long long microseconds)
{
    constexpr double high_weight = 4294967296.0;
    const double high = static_cast<int>(microseconds >> 32);
    return static_cast<float>(high * high_weight + static_cast<u32_t>(microseconds));
}

int call_config(econf_subpub_cb_t callback, int version, int session_id,
                const config_change &change)
{
    if (version == 1) {
        return call<conf_config_cb_t>(callback, change.oper, change.more, change.priority,
                                      change.path);
    }
    const long long begin = conf_get_unix_time();
    const int result = call<econf_config_cb_t>(callback, session_id, change.oper, change.more,
                                               change.priority, change.path);
    const float microseconds = to_float(conf_get_unix_time() - begin);
    LOG_FILE_DEBUG("Service publish result: %d for path:%s oper:%d priority:%d time "
                   "consumed:%.3f seconds",
                   result, change.path, change.oper, change.priority,
                   static_cast<double>(microseconds / 1000000.0F));
    if (result != 0 && (change.oper & CONFIG_OP_CFGR) != 0) {
        ++g_rdb_recovery_status;
    }
    return result;
}

void _publish_config_proc(const daemon_request &request, int session_id, int index, xmlNode *info)
{
    conf_plugin_data *plugin = request.plugin;
    const config_change change = read_change(info);
    const given_text path(change.path);
    const econf_subpub_cb_t callback =
        announced_callback(plugin->plugin_ctxt, callback_kind::config, index);
    if (callback == nullptr) {
        LOG_FILE_DEBUG("Cann't find the callback for path:%s oper:%d priority:%d", change.path,
                       change.oper, change.priority);
        _plugin_set_error(plugin, -1, "Cann't find the callback function.");
    } else {
        const context_guard guard(plugin->plugin_ctxt);
        const int result = call_config(callback, plugin->plugin_ctxt->version, session_id, change);
        if (guard.is_gone()) {
            return;
        }
        if (result == 0) {
            plugin->plugin_ctxt->err_code = 0;
        } else {
            record_refusal(plugin, result);
        }
    }
    reply_as_recorded(request);
}

// ---- operations --------------------------------------------------------------------------------

void _publish_operate_proc(const daemon_request &request, int session_id, int index, xmlNode *info)
{
    conf_plugin_data *plugin = request.plugin;
    if (const econf_subpub_cb_t callback = find_callback(request, callback_kind::operate, index)) {
        callback_nodes output;
        const context_guard guard(plugin->plugin_ctxt);
        const int result =
            plugin->plugin_ctxt->version == 1
                ? call<conf_operate_cb_t>(callback, info->children, &output.first)
                : call<econf_operate_cb_t>(callback, session_id, info->children, &output.first);
        if (guard.is_gone() || (result == 0 && reply_with_output(request, output))) {
            return;
        }
        if (result != 0) {
            record_refusal(plugin, result);
        }
    }
    if (_plugin_single_reply_send(plugin, request.id) != 0) {
        LOG_FILE_ERROR("Plugin %s send error-reply failed.", plugin->plugin_ctxt->name);
    }
}

// ---- methods -----------------------------------------------------------------------------------

struct publish_args {
    const char *type = nullptr;
    int session_id = no_session;
    int index = no_callback;
    xmlNode *info = nullptr;
};

publish_args read_publish(xmlNode *params)
{
    publish_args args;
    for (xmlNode *child = params->children; child != nullptr; child = child->next) {
        if (is_element(child, "type")) {
            args.type = conf_get_node_content(child);
        } else if (is_element(child, "session-id")) {
            read_number(child, &args.session_id);
        } else if (is_element(child, "callback")) {
            read_number(child, &args.index);
        } else if (is_element(child, "info")) {
            args.info = child;
        }
    }
    return args;
}

void _method_publish_proc(const daemon_request &request)
{
    const publish_args args = read_publish(request.params);
    if (args.info == nullptr || args.type == nullptr) {
        _plugin_set_error(request.plugin, -1, "Error publish rpc message.");
        reply_as_recorded(request);
    } else if (std::strcmp(args.type, "config") == 0) {
        _publish_config_proc(request, args.session_id, args.index, args.info);
    } else if (std::strcmp(args.type, "operate") == 0) {
        _publish_operate_proc(request, args.session_id, args.index, args.info);
    } else {
        _plugin_set_error(request.plugin, -1, "Unknown publish type.");
        reply_as_recorded(request);
    }
}

struct subscribe_args {
    const char *path = nullptr;
    const char *filter = nullptr;
    int session_id = no_session;
    int index = no_callback;
};

subscribe_args _method_subscribe_parse_args(xmlNode *params)
{
    subscribe_args args;
    for (xmlNode *child = params->children; child != nullptr; child = child->next) {
        if (is_element(child, "path")) {
            args.path = conf_get_node_content(child);
        } else if (is_element(child, "session-id")) {
            read_number(child, &args.session_id);
        } else if (is_element(child, "filter")) {
            args.filter = conf_get_node_content(child);
        } else if (is_element(child, "callback")) {
            read_number(child, &args.index);
        }
    }
    return args;
}

void _method_subscribe_proc(const daemon_request &request)
{
    conf_plugin_data *plugin = request.plugin;
    const subscribe_args args = _method_subscribe_parse_args(request.params);
    const given_text path(args.path);
    const given_text filter(args.filter);
    if (const econf_subpub_cb_t callback =
            find_callback(request, callback_kind::status, args.index)) {
        callback_nodes status;
        const context_guard guard(plugin->plugin_ctxt);
        const int result =
            plugin->plugin_ctxt->version == 1
                ? call<conf_status_cb_t>(callback, const_cast<char *>(args.path),
                                         const_cast<char *>(args.filter), &status.first)
                : call<econf_status_cb_t>(callback, args.session_id, args.path, args.filter,
                                          &status.first);
        if (guard.is_gone() || (result == 0 && reply_with_status(request, args.path, status))) {
            return;
        }
        if (result != 0) {
            record_refusal(plugin, result);
        }
    }
    reply_as_recorded(request);
}

void _method_kickoff_proc(const daemon_request &request)
{
    conf_plugin_context_t *ctxt = request.plugin->plugin_ctxt;
    LOG_FILE_INFO("Plugin %s kickoff now.", ctxt->name);
    if (ctxt->cbs[0] != nullptr) {
        const context_guard guard(ctxt);
        function_cast<kick_off_cb>(ctxt->cbs[0])();
        if (guard.is_gone()) {
            return;
        }
    }
    ctxt->err_code = 0;
    if (ctxt->err_msg != nullptr && ctxt->err_msg != def_err_msg) {
        LOG_FILE_WARN("Plugin kickoff have error %s now.", ctxt->err_msg);
        release_error_text(std::exchange(ctxt->err_msg, nullptr));
    }
    reply_as_recorded(request);
}

void _method_default_proc(const daemon_request &request)
{
    LOG_FILE_WARN("Receive an unknown rpc method %s.", request.method);
    if (request.id == 0) {
        return;
    }
    _plugin_set_error(request.plugin, -1, "Method <%s> doesn't be supported", request.method);
    if (_plugin_single_reply_send(request.plugin, request.id) != 0) {
        LOG_FILE_ERROR("Plugin %s send reply for %s rpc failed.", request.plugin->plugin_ctxt->name,
                       request.method);
    }
}

struct method {
    const char *name;
    void (*proc)(const daemon_request &);
};

constexpr method methods[] = {
    {"publish", _method_publish_proc},
    {"subscribe", _method_subscribe_proc},
    {"kickoff", _method_kickoff_proc},
};

void dispatch(const daemon_request &request)
{
    for (const method &method : methods) {
        if (std::strcmp(request.method, method.name) == 0) {
            method.proc(request);
            return;
        }
    }
    _method_default_proc(request);
}

} // namespace

void handle_request(conf_plugin_data *plugin, xmlNode *rpc)
{
    if (rpc == nullptr) {
        LOG_FILE_DEBUG("Plugin %s parse message failed.", plugin->plugin_ctxt->name);
        return;
    }
    daemon_request request = {plugin, nullptr, nullptr, plugin_get_msgid(rpc)};
    if (plugin_parse_rpc(rpc, &request.method, &request.params) != 0) {
        LOG_FILE_DEBUG("Plugin %s parse rpc failed.", plugin->plugin_ctxt->name);
        return;
    }
    dispatch(request);
}

void econf_plugin_run(void)
{
    conf_plugin_data *plugin = get_plugin_from_hash();
    if (!is_active(plugin)) {
        LOG_FILE_ERROR("Plugin context is not ready or not be activated.");
        return;
    }
    const loop_scope scope;
    const context_guard guard(plugin->plugin_ctxt);
    for (;;) {
        bool_t ready = false;
        if (_recv_message(plugin, &ready) != 0 || !ready) {
            return;
        }
        const wiped_node rpc(plugin_parse_message(&plugin->plugin_ctxt->recv_buf));
        handle_request(plugin, rpc.get());
        if (guard.is_gone()) {
            return;
        }
    }
}
