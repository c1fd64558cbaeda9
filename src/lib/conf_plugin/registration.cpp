// Makes the plugin of the process: context, connection, callback table and the register request;
// and releases it again. Relies on exchange.cpp to send the request.
#include "conf_misc.h"
#include "plugin_internal.h"
#include "supervision.h"
#include "support/log.h"
#include "support/owners.h"
#include "wire.h"
#include "xml.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>

namespace {

template <typename entry>
u32_t count_entries(const entry *entries)
{
    u32_t count = 0;
    while (entries != nullptr && entries[count].path != nullptr) {
        ++count;
    }
    return count;
}

// What a failure to connect means, in front of the path.
const char *cause_of(int error)
{
    switch (error) {
    case ENOENT:
    case ECONNREFUSED:
        return "There is no daemon at";
    case EACCES:
    case EPERM:
        return "There is no permission for the daemon at";
    case EAGAIN:
        return "No further connection is accepted by the daemon at";
    default:
        return "There is no way to the daemon at";
    }
}

// Returns the connected, non-blocking socket; empty, with the cause logged, when there is none.
support::unique_fd _connect_to_confd()
{
    supervision *const supervisor = supervised(); // which waits for no room among the connections
    const int type = SOCK_STREAM | SOCK_CLOEXEC | (supervisor != nullptr ? SOCK_NONBLOCK : 0);
    support::unique_fd sock(socket(AF_UNIX, type, 0));
    if (!sock) {
        LOG_FILE_ERROR("Create socket failed(%s).", std::strerror(errno));
        return sock;
    }
    const sockaddr_un address = socket_address(g_conf_plugin_socket);
    if (connect(sock.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        LOG_FILE_ERROR("Connect to confd failed(%s).", std::strerror(errno));
        if (supervisor != nullptr) {
            supervisor->explain("%s %s: %s.", cause_of(errno), address.sun_path,
                                std::strerror(errno));
        }
        sock.reset();
    } else if (conf_non_block_fd(sock.get()) != 0) {
        LOG_FILE_ERROR("Set connect to confd sock to nonblock failed.");
        sock.reset();
    }
    return sock;
}

// Fills the record's context; on failure the record has none.
int _init_plugin_context(conf_plugin_data *plugin, const char *name,
                         const econf_plugin_subpub_info_t *cb_info)
{
    const std::size_t slots = 1 + std::size_t{count_entries(cb_info->config_cbs)} +
                              count_entries(cb_info->status_cbs) +
                              count_entries(cb_info->operate_cbs);
    const std::size_t size =
        offsetof(conf_plugin_context_t, cbs) + slots * sizeof(econf_subpub_cb_t);
    auto *ctxt = static_cast<conf_plugin_context_t *>(calloc(1, size));
    if (ctxt == nullptr) {
        LOG_FILE_ERROR("Allocate %d byte(s) memmory for plugin context failed.",
                       static_cast<int>(size));
        return -1;
    }
    plugin->plugin_ctxt = ctxt;
    ctxt->sock = -1;
    advance_context_generation();

    ctxt->name = strdup(name);
    if (ctxt->name == nullptr) {
        return -1;
    }
    ctxt->recv_buf = conf_buffer_create(wire::buffer_room);
    ctxt->send_buf = conf_buffer_create(wire::buffer_room);
    if (ctxt->recv_buf == nullptr || ctxt->send_buf == nullptr) {
        LOG_FILE_ERROR("Create message buffer for remote plugin failed.");
        return -1;
    }
    ctxt->sock = _connect_to_confd().release();
    if (ctxt->sock < 0) {
        return -1;
    }
    ctxt->version = 2;
    ctxt->rpc_id = 1;
    begin_table(ctxt, cb_info->kick_off);
    return 0;
}

// ---- the register request ----------------------------------------------------------------------

struct section {
    callback_kind kind;
    const char *name;
    const char *element; // of each entry
    const char *failure; // takes the path of the entry that could not be made
};

constexpr section config_section = {callback_kind::config, "config-subscribe", "subscriber",
                                    "Build config-subscribe on path %s failed."};
constexpr section status_section = {callback_kind::status, "status-publish", "publisher",
                                    "Build status-publish on path %s failed."};
constexpr section operate_section = {callback_kind::operate, "operate-subscribe", "subscriber",
                                     "Build operate-subscribe on path %s failed."};

// Only a configuration entry has a priority.
bool add_priority(xmlNode *parent, const econf_config_cb_info_t &entry)
{
    return add_number(parent, "priority", entry.priority) != nullptr;
}

template <typename entry_type>
bool add_priority(xmlNode * /*parent*/, const entry_type & /*entry*/)
{
    return true;
}

template <typename entry_type>
bool add_entry(xmlNode *parent, const char *element, const entry_type &entry, u32_t index)
{
    xmlNode *node = add_element(parent, element);
    return node != nullptr && add_raw(node, "path", entry.path) != nullptr &&
           add_priority(node, entry) && add_number(node, "callback", index) != nullptr;
}

// Adds a section, unless the plugin has no entries of that kind, and files their callbacks under
// the next indices.
template <typename entry_type>
bool add_section(conf_plugin_context_t *ctxt, xmlNode *params, const section &section,
                 const entry_type *entry)
{
    announce_kind(ctxt, section.kind);
    if (entry == nullptr) {
        return true;
    }
    xmlNode *parent = add_element(params, section.name);
    if (parent == nullptr) {
        return false;
    }
    for (; entry->path != nullptr; ++entry) {
        if (!add_entry(parent, section.element, *entry, ctxt->cbs_nums)) {
            _conf_write_log(DBG_ERROR, section.failure, entry->path);
            return false;
        }
        announce_callback(ctxt, function_cast<econf_subpub_cb_t>(entry->callback));
    }
    return true;
}

xmlNode *build_register_params(conf_plugin_context_t *ctxt,
                               const econf_plugin_subpub_info_t *cb_info)
{
    node_ptr params(new_element("params"));
    if (params && add_text(params.get(), "plugin-name", ctxt->name) != nullptr &&
        add_section(ctxt, params.get(), config_section, cb_info->config_cbs) &&
        add_section(ctxt, params.get(), status_section, cb_info->status_cbs) &&
        add_section(ctxt, params.get(), operate_section, cb_info->operate_cbs)) {
        return params.release();
    }
    return nullptr;
}

xmlNode *_build_register_rpc(conf_plugin_context_t *ctxt, const econf_plugin_subpub_info_t *cb_info)
{
    xmlNode *params = build_register_params(ctxt, cb_info);
    if (params == nullptr) {
        LOG_FILE_ERROR("Build register rpc for plugin %s failed.", ctxt->name);
        return nullptr;
    }
    return plugin_build_rpc_message("register", params, ctxt->rpc_id);
}

int register_plugin(conf_plugin_data *plugin, const econf_plugin_subpub_info_t *cb_info)
{
    conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    const node_ptr rpc(_build_register_rpc(ctxt, cb_info));
    if (!rpc) {
        LOG_FILE_ERROR("Build register rpc for plugin %s failed.", ctxt->name);
        return -1;
    }
    if (_plugin_single_rpc_send(plugin, rpc.get()) != 0) {
        LOG_FILE_ERROR("Plugin %s register to confd failed.", ctxt->name);
        return -1;
    }
    return 0;
}

} // namespace

int econf_plugin_init(const char *name, econf_plugin_subpub_info_t *cb_info)
{
    if (name == nullptr || cb_info == nullptr) {
        LOG_FILE_ERROR("Input parameters error(name=%p, reg_info=%p).",
                       static_cast<const void *>(name), static_cast<void *>(cb_info));
        return -1;
    }
    conf_plugin_data *plugin = get_plugin_from_hash();
    if (plugin == nullptr) {
        return -1;
    }
    (void)conf_load_config(nullptr); // without a profile the present paths stay in force
    if (plugin->confd_hooks != nullptr || plugin->plugin_ctxt != nullptr) {
        LOG_FILE_ERROR("Plugin %s context has been created.",
                       plugin->confd_hooks != nullptr ? "local" : "remote");
        return -1;
    }

    if (_init_plugin_context(plugin, name, cb_info) != 0) {
        LOG_FILE_ERROR("Initialize context for plugin %s failed.", name);
        _free_plugin_context(plugin);
        return -1;
    }
    if (register_plugin(plugin, cb_info) != 0) {
        _free_plugin_context(plugin);
        return -1;
    }
    LOG_FILE_DEBUG("Register plugin %s success.", name);
    return plugin->plugin_ctxt->sock;
}

void econf_plugin_close(void)
{
    conf_plugin_data *plugin = get_plugin_from_hash();
    if (plugin == nullptr || plugin->plugin_ctxt == nullptr) {
        LOG_FILE_ERROR("Plugin context is not ready when close.");
        return;
    }
    LOG_FILE_DEBUG("Close plugin %s.", plugin->plugin_ctxt->name);
    _free_plugin_context(plugin);
}

void _free_plugin_context(conf_plugin_data *plugin)
{
    conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    if (ctxt == nullptr) {
        return;
    }
    support::unique_fd(ctxt->sock).reset();
    conf_buffer_destroy(ctxt->recv_buf);
    conf_buffer_destroy(ctxt->send_buf);
    free(ctxt->name);
    release_error_text(ctxt->err_msg);
    free(ctxt);
    plugin->plugin_ctxt = nullptr;
    forget_table();
    advance_context_generation();
    if (plugin->confd_hooks == nullptr) { // hooks outlive every context of their process
        del_plugin_from_hash();
    }
}
