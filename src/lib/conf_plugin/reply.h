// The answers of the event loop: built from the recorded error, from the output of an operation or
// from status data, and sent. Relies on envelope.cpp and exchange.cpp.
#ifndef CONF_PLUGIN_REPLY_H
#define CONF_PLUGIN_REPLY_H

#include "plugin_internal.h"
#include "xml.h"

// One request of the daemon on its way to its callback and to its reply.
struct daemon_request {
    conf_plugin_data *plugin;
    const char *method;
    xmlNode *params;
    u32_t id; // 0 for none
};

// What a callback hands back: a list that belongs to the library, unless it still hangs in a tree
// (the request's own or one of the plugin's), whose owner frees it.
struct callback_nodes {
    xmlNode *first = nullptr;

    callback_nodes() = default;
    ~callback_nodes();
    callback_nodes(const callback_nodes &) = delete;
    callback_nodes &operator=(const callback_nodes &) = delete;

    [[nodiscard]] bool are_attached() const { return first != nullptr && first->parent != nullptr; }
    // Whether the list cannot change hands: it hangs in a tree, or the dictionary of its document
    // owns some of its strings.
    [[nodiscard]] bool are_shared() const
    {
        return are_attached() || (first != nullptr && first->doc != nullptr);
    }
};

// Sends the reply that the error fields of the context describe, and clears them. Returns 0, or -1
// when nothing was sent, which is also the case for the id 0.
[[nodiscard]] int _plugin_single_reply_send(conf_plugin_data *plugin, u32_t msgid);

// The same, with the failure logged.
void reply_as_recorded(const daemon_request &request);

// Send the success of an operation and of a status request, with what its callback produced. Return
// false when the reply cannot be built: the cause is then recorded for an error reply.
[[nodiscard]] bool reply_with_output(const daemon_request &request, callback_nodes &output);
[[nodiscard]] bool reply_with_status(const daemon_request &request, const char *path,
                                     callback_nodes &status);

#endif
