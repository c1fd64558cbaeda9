// The requests of the plugin to the daemon. Each goes to the matching hook in the process of the
// daemon itself, and over the wire everywhere else.
// Relies on envelope.cpp to wrap and on exchange.cpp to send.
#include "conf_misc.h"
#include "plugin_internal.h"
#include "support/log.h"
#include "xml.h"

#include <utility>

namespace {

bool is_ready(const conf_plugin_data *plugin)
{
    if (!is_active(plugin)) {
        LOG_FILE_ERROR("Plugin context is not ready or not be activated.");
        return false;
    }
    return true;
}

template <typename hook_type, typename... arguments>
int call_hook(hook_type hook, const char *missing, arguments... given)
{
    if (hook == nullptr) {
        LOG_FILE_ERROR("%s", missing);
        return -1;
    }
    return hook(given...);
}

// ---- reading: pull and locate ------------------------------------------------------------------

struct read_request {
    const char *method;
    int (*confd_plugin_callback_t::*hook)(bool_t old_flag, const char *path, xmlNode **result);
    const char *no_hook;
    xmlNode *(*holder)(xmlNode *result); // the element whose children the caller receives, or null
};

xmlNode *first_data(xmlNode *result)
{
    return child_element(result, "data");
}

xmlNode *result_itself(xmlNode *result)
{
    return result;
}

constexpr read_request pull_request = {"pull", &confd_plugin_callback_t::conf_plugin_pull,
                                       "Confd doesn't inject conf_plugin_pull function.",
                                       first_data};
constexpr read_request locate_request = {"locate", &confd_plugin_callback_t::conf_plugin_locate,
                                         "Confd doesn't inject conf_plugin_locate function.",
                                         result_itself};

xmlNode *build_read(const conf_plugin_context_t *ctxt, const char *method, int old_flag,
                    const char *path)
{
    wiped_node params(new_element("params"));
    xmlNode *rpc = nullptr;
    if (params && (old_flag == 0 || add_element(params.get(), "old") != nullptr) &&
        add_text(params.get(), "path", path) != nullptr) {
        rpc = plugin_build_rpc_message(method, params.release(), ctxt->rpc_id);
    }
    if (rpc == nullptr) {
        LOG_FILE_ERROR("Build pull rpc for plugin %s failed.", ctxt->name);
    }
    return rpc;
}

// The reply to a reading request, or null with the cause logged. `*result` is null when the daemon
// answered with an error, which is no failure here.
wiped_node exchange_read(conf_plugin_data *plugin, xmlNode *rpc, xmlNode **result)
{
    const char *name = plugin->plugin_ctxt->name;
    xmlNode *received = nullptr;
    if (_syn_send_rpc(plugin, rpc, &received) != 0) {
        LOG_FILE_ERROR("Plugin %s send rpc to confd failed.", name);
        return nullptr;
    }
    wiped_node reply(received);
    xmlNode *error = nullptr;
    if (plugin_parse_reply(reply.get(), result, &error) != 0) {
        LOG_FILE_ERROR("Parse reply for plugin %s rpc failed.", name);
        reply.reset();
    }
    return reply;
}

int read_remote(conf_plugin_data *plugin, const read_request &request, int old_flag,
                const char *path, xmlNode **list)
{
    *list = nullptr;
    if (!is_ready(plugin)) {
        return -1;
    }
    const conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    const wiped_node rpc(build_read(ctxt, request.method, old_flag, path));
    if (!rpc) {
        return -1;
    }
    xmlNode *result = nullptr;
    const wiped_node reply = exchange_read(plugin, rpc.get(), &result);
    if (!reply) {
        return -1;
    }
    xmlNode *holder = result == nullptr ? nullptr : request.holder(result);
    if (holder != nullptr && holder->children != nullptr) {
        *list = take_children(holder);
        if (*list == nullptr) {
            LOG_FILE_ERROR("Plugin %s copy child list failed.", ctxt->name);
        }
    }
    return 0;
}

int read_from_daemon(const read_request &request, int old_flag, const char *path, xmlNode **list)
{
    conf_plugin_data *plugin = get_plugin_from_hash();
    if (plugin == nullptr || path == nullptr || list == nullptr) {
        LOG_FILE_ERROR("Input parameters error(path=%p, result=%p).",
                       static_cast<const void *>(path), static_cast<void *>(list));
        if (list != nullptr) {
            *list = nullptr;
        }
        return -1;
    }
    if (plugin->confd_hooks == nullptr) {
        return read_remote(plugin, request, old_flag, path, list);
    }
    const bool_t old = old_flag != 0;
    const int result =
        call_hook(plugin->confd_hooks->*request.hook, request.no_hook, old, path, list);
    if (result != 0) {
        *list = nullptr;
    }
    return result;
}

// ---- writing: push and deployment --------------------------------------------------------------

// Sends a request whose reply says no more than success or error.
int send_simple(conf_plugin_data *plugin, xmlNode *rpc, const char *failure)
{
    const int result = rpc == nullptr ? -1 : _plugin_single_rpc_send(plugin, rpc);
    if (result != 0) {
        _conf_write_log(DBG_ERROR, failure, plugin->plugin_ctxt->name);
    }
    return result;
}

// `oper_type` is null for a request that has none.
xmlNode *build_data_params(const char *path, const char *oper_type, xmlNode *data)
{
    wiped_node params(new_element("params"));
    if (!params || add_text(params.get(), "path", path) == nullptr ||
        (oper_type != nullptr && add_text(params.get(), "oper-type", oper_type) == nullptr)) {
        return nullptr;
    }
    xmlNode *holder = add_element(params.get(), "data");
    wiped_list copy(holder == nullptr ? nullptr : copy_list(data));
    if (!copy || !add_children(holder, copy.get())) {
        return nullptr;
    }
    (void)copy.release();
    return params.release();
}

const char *oper_type_of(int oper)
{
    switch (oper) {
    case 0:
        return "add";
    case 1:
        return "delete";
    default:
        return "update";
    }
}

int push_remote(conf_plugin_data *plugin, const char *path, xmlNode *data)
{
    const conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    LOG_FILE_INFO("Build push packet, path:%s, name:%s", path, ctxt->name);
    xmlNode *params = build_data_params(path, nullptr, data);
    if (params == nullptr) {
        LOG_FILE_ERROR("Build push rpc for plugin %s failed.", ctxt->name);
    }
    const wiped_node rpc(
        params == nullptr ? nullptr : plugin_build_rpc_message("push", params, ctxt->rpc_id));
    if (!rpc) {
        LOG_FILE_ERROR("Build push rpc for plugin %s failed.", ctxt->name);
        return -1;
    }
    LOG_FILE_INFO("Begin to send push packet, name:%s", ctxt->name);
    const int result = send_simple(plugin, rpc.get(), "Plugin %s publish data failed.");
    LOG_FILE_INFO("End to send push packet, name:%s", ctxt->name);
    return result;
}

int config_deployment_remote(conf_plugin_data *plugin, const char *path, int oper, xmlNode *data)
{
    const conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    LOG_FILE_INFO("Build config deployment packet, path:%s, oper:%u, name:%s", path,
                  static_cast<u32_t>(oper), ctxt->name);
    xmlNode *params = build_data_params(path, oper_type_of(oper), data);
    if (params == nullptr) {
        LOG_FILE_ERROR("Build config_deployment rpc for plugin %s failed.", ctxt->name);
    }
    const wiped_node rpc(params == nullptr
                             ? nullptr
                             : plugin_build_rpc_message("config_deployment", params, ctxt->rpc_id));
    if (!rpc) {
        LOG_FILE_ERROR("Build config deployment rpc for plugin %s failed.", ctxt->name);
        return -1;
    }
    LOG_FILE_INFO("Begin to send config deployment packet, name:%s", ctxt->name);
    const int result = send_simple(plugin, rpc.get(), "Plugin %s publish deployment data failed.");
    LOG_FILE_INFO("End to send config deployment packet, name:%s", ctxt->name);
    return result;
}

int save_deployment_remote(conf_plugin_data *plugin)
{
    const conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    xmlNode *params = new_element("params");
    if (params == nullptr) {
        LOG_FILE_ERROR("Build save_deployment rpc for plugin %s failed.", ctxt->name);
        return -1;
    }
    const node_ptr rpc(plugin_build_rpc_message("save_deployment", params, ctxt->rpc_id));
    return send_simple(plugin, rpc.get(), "Plugin %s save deployment data failed.");
}

int copy_deployment_remote(conf_plugin_data *plugin, int override_flag)
{
    const conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    node_ptr params(new_element("params"));
    if (!params) {
        LOG_FILE_ERROR("Build copy_deployment_to_memory rpc for plugin %s failed.", ctxt->name);
        return -1;
    }
    if (add_text(params.get(), "override", override_flag == 1 ? "1" : "0") == nullptr) {
        return -1;
    }
    const node_ptr rpc(
        plugin_build_rpc_message("copy_deployment_to_memory", params.release(), ctxt->rpc_id));
    return send_simple(plugin, rpc.get(), "Plugin %s copy deployment to memory data failed.");
}

// Leaves an element that begins with a text nothing but that text, without quotes.
void keep_unquoted_text(xmlNode *node)
{
    if (const char *text = conf_get_node_content(node)) {
        (void)datastore_path_rm_quotes(const_cast<char *>(text));
        wipe_and_free_list(std::exchange(node->children->next, nullptr));
        node->last = node->children;
    }
}

} // namespace

int econf_plugin_pull(int old_flag, const char *path, xmlNode **result)
{
    return read_from_daemon(pull_request, old_flag, path, result);
}

int econf_plugin_locate(int old_flag, const char *path, xmlNode **position)
{
    const int result = read_from_daemon(locate_request, old_flag, path, position);
    const bool is_remote = result == 0 && get_plugin_hooks() == nullptr;
    for (xmlNode *node = is_remote ? *position : nullptr; node != nullptr; node = node->next) {
        if (is_element(node, "prev") || is_element(node, "next")) {
            keep_unquoted_text(node);
        }
    }
    return result;
}

int econf_plugin_push(const char *path, xmlNode *data)
{
    conf_plugin_data *plugin = get_plugin_from_hash();
    if (plugin == nullptr || path == nullptr || data == nullptr) {
        LOG_FILE_ERROR("Input parameters error(path=%p, result=%p).",
                       static_cast<const void *>(path), static_cast<void *>(data));
        return -1;
    }
    if (plugin->confd_hooks == nullptr) {
        return is_ready(plugin) ? push_remote(plugin, path, data) : -1;
    }
    return call_hook(plugin->confd_hooks->conf_plugin_push,
                     "Confd doesn't inject conf_plugin_push function.", path, data);
}

int econf_plugin_config_deployment(const char *path, int oper, xmlNode *data)
{
    conf_plugin_data *plugin = get_plugin_from_hash();
    if (plugin == nullptr || path == nullptr || data == nullptr) {
        LOG_FILE_ERROR("Input parameters error(path=%p, result=%p).",
                       static_cast<const void *>(path), static_cast<void *>(data));
        return -1;
    }
    if (plugin->confd_hooks == nullptr) {
        return is_ready(plugin) ? config_deployment_remote(plugin, path, oper, data) : -1;
    }
    return call_hook(plugin->confd_hooks->conf_plugin_config_deployment,
                     "Confd doesn't inject conf_plugin_config_deployment function.", path, oper,
                     data);
}

int econf_plugin_save_deployment(void)
{
    conf_plugin_data *plugin = get_plugin_from_hash();
    if (plugin == nullptr) {
        LOG_FILE_ERROR("Input parameters error, plugin is null.");
        return -1;
    }
    if (plugin->confd_hooks == nullptr) {
        return is_ready(plugin) ? save_deployment_remote(plugin) : -1;
    }
    return call_hook(plugin->confd_hooks->conf_plugin_save_deployment,
                     "Confd doesn't inject conf_plugin_save_deployment function.");
}

int econf_plugin_copy_running_to_deployment(int override_flag)
{
    conf_plugin_data *plugin = get_plugin_from_hash();
    if (plugin == nullptr) {
        LOG_FILE_ERROR("Input parameters error, plugin is null.");
        return -1;
    }
    if (plugin->confd_hooks == nullptr) {
        return is_ready(plugin) ? copy_deployment_remote(plugin, override_flag) : -1;
    }
    return call_hook(plugin->confd_hooks->conf_plugin_copy_running_to_deployment,
                     "Confd doesn't inject conf_plugin_copy_running_to_deployment function.",
                     override_flag);
}

void econf_plugin_error(int err_code, const char *err_msg)
{
    conf_plugin_data *plugin = get_plugin_from_hash();
    if (plugin == nullptr) {
        LOG_FILE_ERROR("Can not get plugin information on error set.");
        return;
    }
    if (plugin->confd_hooks != nullptr) {
        if (plugin->confd_hooks->conf_plugin_error == nullptr) {
            LOG_FILE_ERROR("Confd doesn't inject conf_plugin_error function.");
            return;
        }
        plugin->confd_hooks->conf_plugin_error(err_code, err_msg);
    } else if (is_ready(plugin)) {
        _plugin_set_error(plugin, err_code, err_msg == nullptr ? nullptr : "%s", err_msg);
    }
}
