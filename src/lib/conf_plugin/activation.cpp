// Tells the daemon when the plugin is ready and when it is no longer. Relies on exchange.cpp.
#include "plugin_internal.h"
#include "support/log.h"
#include "xml.h"

namespace {

// What a start mode is called in messages, and the element that asks the daemon for it.
struct start {
    const char *word;
    const char *element;
};

start start_of(int mode)
{
    switch (mode) {
    case ACTIVATE_WITH_CFGR:
        return {"cfgr", "with-cfgr"};
    case ACTIVATE_WITH_SMOOTH:
        return {"smooth", "with-smooth"};
    default:
        return {"none", nullptr};
    }
}

xmlNode *_build_activate_rpc(const conf_plugin_context_t *ctxt, const start &start)
{
    node_ptr params(new_element("params"));
    if (!params ||
        (start.element != nullptr && add_element(params.get(), start.element) == nullptr)) {
        LOG_FILE_ERROR("Build activate rpc for plugin %s failed.", ctxt->name);
        return nullptr;
    }
    return plugin_build_rpc_message("activate", params.release(), ctxt->rpc_id);
}

xmlNode *_build_deactivate_rpc(const conf_plugin_context_t *ctxt)
{
    xmlNode *params = new_element("params");
    return params == nullptr ? nullptr
                             : plugin_build_rpc_message("deactivate", params, ctxt->rpc_id);
}

} // namespace

bool is_active(const conf_plugin_data *plugin)
{
    return plugin != nullptr && plugin->plugin_ctxt != nullptr &&
           plugin->plugin_ctxt->bit_activate != 0;
}

int econf_plugin_activate(int start_mode)
{
    conf_plugin_data *plugin = get_plugin_from_hash();
    if (plugin == nullptr || plugin->plugin_ctxt == nullptr) {
        LOG_FILE_ERROR("Plugin context is not ready when active.");
        return -1;
    }
    conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    if (ctxt->bit_activate != 0) {
        LOG_FILE_ERROR("Plugin %s has been activated.", ctxt->name);
        return -1;
    }
    const start start = start_of(start_mode);
    const node_ptr rpc(_build_activate_rpc(ctxt, start));
    if (!rpc) {
        LOG_FILE_ERROR("Build activate rpc in mode(%s) for plugin %s failed.", start.word,
                       ctxt->name);
        return -1;
    }
    if (_plugin_single_rpc_send(plugin, rpc.get()) != 0) {
        LOG_FILE_ERROR("Activate plugin %s failed.", ctxt->name);
        return -1;
    }
    ctxt->bit_activate = 1;
    LOG_FILE_DEBUG("Activate plugin %s success.", ctxt->name);
    return 0;
}

void econf_plugin_deactivate(void)
{
    conf_plugin_data *plugin = get_plugin_from_hash();
    if (plugin == nullptr || plugin->plugin_ctxt == nullptr) {
        LOG_FILE_ERROR("Plugin context is not ready.");
        return;
    }
    conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    if (ctxt->bit_activate == 0) {
        LOG_FILE_DEBUG("Plugin %s has been deactivated.", ctxt->name);
        return;
    }
    const node_ptr rpc(_build_deactivate_rpc(ctxt));
    if (!rpc) {
        LOG_FILE_ERROR("Build deactivate rpc for plugin %s failed.", ctxt->name);
        return;
    }
    if (_plugin_single_rpc_send(plugin, rpc.get()) != 0) {
        LOG_FILE_ERROR("Dectivate plugin %s failed.", ctxt->name);
        return;
    }
    ctxt->bit_activate = 0;
    LOG_FILE_DEBUG("Dectivate plugin %s success.", ctxt->name);
}
