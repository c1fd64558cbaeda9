// See traced_frame.h.
#include "trace/traced_frame.h"

#include "trace/mask.h"
#include "tree/xml.h"

#include <charconv>
#include <utility>

namespace confsim {

namespace {

template <typename Number>
std::optional<Number> as_number(const std::string &text)
{
    Number value{};
    const char *end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && rest == end ? std::optional(value) : std::nullopt;
}

// A plugin's rpc names its method, an agent's has the operation itself inside.
std::string method_of(const xmlNode *message)
{
    std::string method = xml::child_text(message, "method");
    const xmlNode *operation = xml::first_element(message);
    if (method.empty() && operation != nullptr) {
        method = xml::name(operation);
    }
    return masked_as_given(std::move(method));
}

std::string path_of(const xmlNode *message)
{
    std::string where;
    for (const char *inner : {"params", "info"}) {
        message = xml::child(message, inner);
        if (message == nullptr || !where.empty()) {
            break;
        }
        where = xml::child_text(message, "path");
    }
    return masked_as_given(std::move(where));
}

std::optional<u32_t> id_of(const xmlNode *message)
{
    xmlChar *of_agent =
        xmlGetProp(message, reinterpret_cast<const xmlChar *>("message-id")); // or null
    const std::string id = of_agent == nullptr ? xml::child_text(message, "id")
                                               : reinterpret_cast<const char *>(of_agent);
    xmlFree(of_agent);
    return as_number<u32_t>(id);
}

void read_refusal(const xmlNode *message, traced_frame &into)
{
    if (const xmlNode *error = xml::child(message, "error")) {
        into.code = as_number<int>(xml::child_text(error, "code"));
        into.text = masked_as_given(xml::child_text(error, "message"));
    } else if (const xmlNode *of_agent = xml::child(message, "rpc-error")) {
        into.text = masked_as_given(xml::child_text(of_agent, "error-message"));
    }
}

} // namespace

traced_frame read_frame(const traced_peer &peer, const msg_head_t &head, const xmlNode *message,
                        std::string body)
{
    traced_frame made;
    made.peer = peer;
    made.head = head;
    made.size = head.length;
    made.body = std::move(body);
    if (message == nullptr) {
        return made;
    }
    const std::string root = xml::name(message);
    if (root == "notification") {
        made.type = traced_frame::kind::notification;
        return made;
    }
    made.id = id_of(message);
    if (root == "reply" || root == "rpc-reply") {
        made.type = traced_frame::kind::reply;
        read_refusal(message, made);
    } else {
        made.type = traced_frame::kind::request;
        made.method = method_of(message);
        made.path = path_of(message);
    }
    return made;
}

traced_frame read_notification(std::size_t size, std::string body)
{
    traced_frame made;
    made.type = traced_frame::kind::notification;
    made.is_received = true;
    made.size = size;
    made.body = std::move(body);
    return made;
}

} // namespace confsim
