// See reply.h.
#include "reply.h"

#include "support/log.h"

#include <utility>

namespace {

void record_failure(const daemon_request &request, const char *text)
{
    _plugin_set_error(request.plugin, -1, "%s", text);
}

// The "error" or "result" element that the error fields describe; null with the cause logged.
wiped_node build_recorded(int code, const char *text)
{
    if (code == 0) {
        wiped_node result(new_element("result"));
        if (!result) {
            LOG_FILE_ERROR("Create <result> node failed.");
        }
        return result;
    }
    wiped_node error(new_element("error"));
    if (!error) {
        LOG_FILE_ERROR("Create <error> node failed.");
    } else if (add_number(error.get(), "code", code) == nullptr) {
        LOG_FILE_ERROR("Create <code> node failed.");
        error.reset();
    } else if (add_text(error.get(), "message", text) == nullptr) {
        LOG_FILE_ERROR("Create <message> node failed.");
        error.reset();
    }
    return error;
}

int send_recorded(conf_plugin_data *plugin, u32_t msgid, int code, const char *text)
{
    wiped_node outcome = build_recorded(code, text);
    if (!outcome) {
        return -1;
    }
    const wiped_node reply(plugin_build_reply_message(outcome.release(), msgid));
    if (!reply) {
        LOG_FILE_ERROR("Build reply message failed.");
        return -1;
    }
    const int sent = _syn_send_reply(plugin, reply.get());
    if (sent != 0) {
        LOG_FILE_ERROR("Send reply message to confd failed.");
    }
    return sent;
}

// Whether all nodes of a list can be children of an element: a document, for instance, cannot.
bool fit_into_element(const xmlNode *list)
{
    for (const xmlNode *node = list; node != nullptr; node = node->next) {
        switch (node->type) {
        case XML_ELEMENT_NODE:
        case XML_TEXT_NODE:
        case XML_CDATA_SECTION_NODE:
        case XML_ENTITY_REF_NODE:
        case XML_PI_NODE:
        case XML_COMMENT_NODE:
            break;
        default:
            return false;
        }
    }
    return true;
}

// Hands what a callback produced over to `parent`. A list that belongs to a tree of somebody else
// is copied, as is what the wrapper of the older interface holds.
bool take_over(const daemon_request &request, xmlNode *parent, callback_nodes &output)
{
    const bool is_wrapped = request.plugin->plugin_ctxt->version == 1;
    if (!fit_into_element(is_wrapped ? output.first->children : output.first)) {
        record_failure(request, "add <output> xml node failed.");
        return false;
    }
    if (is_wrapped || output.are_shared()) {
        xmlNode *source = is_wrapped ? output.first->children : output.first;
        wiped_list copy(copy_list(source));
        if (source != nullptr && !copy) {
            record_failure(request, "Copy <data> xml node failed.");
            return false;
        }
        if (copy && !add_children(parent, copy.get())) {
            record_failure(request, "Add <data> as children failed.");
            return false;
        }
        (void)copy.release();
        return true;
    }
    if (!add_children(parent, output.first)) {
        record_failure(request, "add <output> xml node failed.");
        return false;
    }
    output.first = nullptr;
    return true;
}

wiped_node build_output(const daemon_request &request, callback_nodes &output)
{
    wiped_node result(new_element("result"));
    if (!result) {
        record_failure(request, "New <result> xml node failed.");
        return nullptr;
    }
    if (output.first == nullptr) {
        if (add_element(result.get(), "ok") == nullptr) {
            record_failure(request, "New <ok> xml node failed.");
            return nullptr;
        }
    } else if (!take_over(request, result.get(), output)) {
        return nullptr;
    }
    return result;
}

// Hangs the status below `data`. What belongs to a tree or a document is copied: only the node
// itself when it hangs in a tree, since its siblings need not be meant.
bool add_status(xmlNode *data, callback_nodes &status)
{
    if (!fit_into_element(status.first)) {
        return false;
    }
    if (status.are_shared()) {
        wiped_list copy(status.are_attached() ? copy_node(status.first) : copy_list(status.first));
        if (!copy || !add_children(data, copy.get())) {
            return false;
        }
        (void)copy.release();
        return true;
    }
    if (status.first != nullptr && !add_children(data, status.first)) {
        return false;
    }
    status.first = nullptr;
    return true;
}

wiped_node build_status(const daemon_request &request, const char *path, callback_nodes &status)
{
    wiped_node result(new_element("result"));
    if (!result) {
        record_failure(request, "New <result> xml node failed.");
        return nullptr;
    }
    if (request.plugin->plugin_ctxt->version != 1 &&
        add_text(result.get(), "path", path) == nullptr) {
        record_failure(request, "New <path> xml node failed.");
        return nullptr;
    }
    xmlNode *data = add_element(result.get(), "data");
    if (data == nullptr) {
        record_failure(request, "New <data> xml node failed.");
        return nullptr;
    }
    if (!add_status(data, status)) {
        record_failure(request, "Add status as a child failed.");
        return nullptr;
    }
    return result;
}

// Tells a reply that never was on its way, so that another can take its place.
bool is_printable(const xmlNode *reply)
{
    text_block text;
    return print_node(&text, reply, odd_bytes::replaced) != printed::not_printable;
}

bool reply_with(const daemon_request &request, wiped_node result)
{
    if (!result) {
        return false;
    }
    const wiped_node reply(plugin_build_reply_message(result.release(), request.id));
    if (!reply) {
        record_failure(request, "Build reply message failed.");
        return false;
    }
    if (_syn_send_reply(request.plugin, reply.get()) != 0) {
        LOG_FILE_ERROR("Send reply message to confd failed.");
        if (!is_printable(reply.get())) {
            record_failure(request, "Build reply message failed.");
            return false;
        }
    }
    // An error that was recorded although the callback succeeded goes, lest a later reply carries
    // it.
    clear_error(request.plugin->plugin_ctxt);
    return true;
}

} // namespace

callback_nodes::~callback_nodes()
{
    if (!are_attached()) {
        wipe_and_free_list(first);
    }
}

int _plugin_single_reply_send(conf_plugin_data *plugin, u32_t msgid)
{
    conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    const int code = std::exchange(ctxt->err_code, 0);
    char *text = std::exchange(ctxt->err_msg, nullptr);
    const int sent = msgid == 0 ? -1 : send_recorded(plugin, msgid, code, text);
    release_error_text(text);
    return sent;
}

void reply_as_recorded(const daemon_request &request)
{
    if (_plugin_single_reply_send(request.plugin, request.id) != 0) {
        LOG_FILE_ERROR("Plugin %s send reply for publish rpc failed.",
                       request.plugin->plugin_ctxt->name);
    }
}

bool reply_with_output(const daemon_request &request, callback_nodes &output)
{
    return reply_with(request, build_output(request, output));
}

bool reply_with_status(const daemon_request &request, const char *path, callback_nodes &status)
{
    return reply_with(request, build_status(request, path, status));
}
