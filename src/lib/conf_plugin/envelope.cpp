// The two documents of the plugin socket, rpc and reply: building them, splitting them, and reading
// their id and error. Relies on xml.h.
#include "conf_misc.h"
#include "conf_plugin.h"
#include "support/decimal.h"
#include "support/log.h"
#include "xml.h"

#include <cstring>

namespace {

// The text of the first child of that name; null when there is none or it holds no text.
const char *child_text(const xmlNode *parent, const char *name)
{
    return conf_get_node_content(parent == nullptr ? nullptr : child_element(parent, name));
}

// Hangs `child` below `parent`, which owns it from then on, and belongs to the document of the
// child: the child's strings may stand in the document's dictionary.
bool attach(xmlNode *parent, wiped_node &child)
{
    if (!child) {
        return false;
    }
    xmlSetTreeDoc(parent, child->doc);
    if (xmlAddChild(parent, child.get()) == nullptr) {
        return false;
    }
    (void)child.release();
    return true;
}

} // namespace

xmlNode *plugin_build_rpc_message(const char *method, xmlNode *params, u32_t id)
{
    wiped_node given(params);
    wiped_node rpc(new_element("rpc"));
    if (rpc && add_text(rpc.get(), "method", method) != nullptr && attach(rpc.get(), given) &&
        add_number(rpc.get(), "id", id) != nullptr) {
        return rpc.release();
    }
    LOG_FILE_ERROR("Build rpc <method = %s> message failed.", method);
    return nullptr;
}

xmlNode *plugin_build_reply_message(xmlNode *result, u32_t id)
{
    wiped_node given(result);
    wiped_node reply(new_element("reply"));
    if (reply && attach(reply.get(), given) && add_number(reply.get(), "id", id) != nullptr) {
        return reply.release();
    }
    LOG_FILE_ERROR("Build reply message failed.");
    return nullptr;
}

int plugin_parse_rpc(xmlNode *rpc, const char **method, xmlNode **params)
{
    if (rpc == nullptr || method == nullptr || params == nullptr) {
        LOG_FILE_ERROR("Input parameters error(rpc=%p, method=%p, params=%p).",
                       static_cast<void *>(rpc), static_cast<const void *>(method),
                       static_cast<void *>(params));
        return -1;
    }
    *method = nullptr;
    *params = nullptr;
    for (xmlNode *child = rpc->children; child != nullptr; child = child->next) {
        if (is_element(child, "method")) {
            *method = conf_get_node_content(child);
        } else if (is_element(child, "params")) {
            *params = child;
        }
    }
    if (*method == nullptr || *params == nullptr) {
        *method = nullptr;
        *params = nullptr;
        LOG_FILE_ERROR("Invalid rpc message(without <method> or <params>).");
        return -1;
    }
    return 0;
}

int plugin_parse_reply(xmlNode *reply, xmlNode **result, xmlNode **error)
{
    if (reply == nullptr || result == nullptr || error == nullptr) {
        LOG_FILE_ERROR("Input parameters error(reply=%p, result=%p, error=%p).",
                       static_cast<void *>(reply), static_cast<void *>(result),
                       static_cast<void *>(error));
        return -1;
    }
    *result = nullptr;
    *error = nullptr;
    for (xmlNode *child = reply->children; child != nullptr; child = child->next) {
        if (is_element(child, "result")) {
            *result = child;
        } else if (is_element(child, "error")) {
            *error = child;
        }
    }
    if (*result != nullptr && *error != nullptr) {
        LOG_FILE_ERROR("Invalid reply message(both <error> and <result>).");
        return -1;
    }
    if (*result == nullptr && *error == nullptr) {
        LOG_FILE_ERROR("Invalid reply message(without <error> and <result>).");
        return -1;
    }
    return 0;
}

const char *plugin_get_reply_errmsg(xmlNode *error)
{
    return child_text(error, "message");
}

int plugin_get_reply_errcode(xmlNode *error)
{
    const char *code = child_text(error, "code");
    return code == nullptr ? -1 : support::decimal_int(code);
}

u32_t plugin_get_msgid(xmlNode *root)
{
    const char *id = child_text(root, "id");
    return id == nullptr ? 0 : support::decimal_id(id);
}
