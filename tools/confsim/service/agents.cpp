// See agents.h.
#include "service/agents.h"

#include "failure.h"

#include <ctime>
#include <list>

namespace confsim {

namespace {

constexpr std::size_t most_agents = 64;

constexpr const char *base_namespace = "urn:ietf:params:xml:ns:netconf:base:1.0";
constexpr const char *notification_namespace = "urn:ietf:params:xml:ns:netconf:notification:1.0";

const xmlChar *chars(const char *text)
{
    return reinterpret_cast<const xmlChar *>(text);
}

xml::node_ptr element_in(const char *name, const char *space)
{
    xml::node_ptr made = xml::element(name);
    xmlSetNs(made.get(), xmlNewNs(made.get(), chars(space), nullptr));
    return made;
}

// What a request asks for: the element below its filter, or the operation itself, if there is one.
std::string asked_for(const xmlNode *rpc)
{
    const xmlNode *operation = xml::first_element(rpc);
    if (operation == nullptr) {
        return "A request without an operation";
    }
    const xmlNode *filter = xml::child(operation, "filter");
    const xmlNode *inner = filter == nullptr ? nullptr : xml::first_element(filter);
    return xml::name(inner == nullptr ? operation : inner);
}

void refuse(xmlNode *reply, const char *type, const char *tag, const std::string &message)
{
    xmlNode *error = xml::add(reply, "rpc-error");
    xml::add(error, "error-type", type);
    xml::add(error, "error-tag", tag);
    xml::add(error, "error-severity", "error");
    xml::add(error, "error-message", message);
}

std::string now()
{
    const std::time_t seconds = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[32];
    return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

// A notification should be an element, but any text is possible. Returns whether it is an element.
bool add_content(xmlNode *notification, const std::string &content)
{
    try {
        const xml::doc_ptr parsed = xml::parse_text(content, "notification");
        xml::add(notification, xml::copy(xmlDocGetRootElement(parsed.get())));
        return true;
    } catch (const failure &) {
        xml::add(notification, "text", xml::printable(content));
        return false;
    }
}

} // namespace

agent_service::agent_service(event_loop &loop, const console &out, const tracer &trace,
                             const endpoints &where)
    : out_(out),
      agents_(
          loop, where.agent_socket(), most_agents,
          {[this, &trace](int descriptor) { return make(descriptor, trace); },
           [this](const agent_ptr &from, const xml::node_ptr &message) {
               from->stream.send(answer(*from, message.get()).get());
           },
           [this](const agent_ptr &from, const std::string &why) {
               out_.event(from->called + " " + why);
           },
           [&out](const std::string &why) { out.event("no more agents are accepted: " + why); }})
{
}

agent_service::agent_ptr agent_service::make(int descriptor, const tracer &trace)
{
    auto made = std::make_shared<agent>(descriptor, trace);
    made->called = "agent, process " + made->stream.process();
    made->stream.set_peer(made->called);
    return made;
}

xml::node_ptr agent_service::answer(agent &from, const xmlNode *rpc)
{
    xml::node_ptr reply = element_in("rpc-reply", base_namespace);
    if (rpc == nullptr) {
        refuse(reply.get(), "rpc", "malformed-message", "The request is not well-formed.");
        return reply;
    }
    if (xmlChar *id = xmlGetProp(rpc, chars("message-id"))) {
        xmlNewProp(reply.get(), chars("message-id"), id);
        xmlFree(id);
    }
    const std::string what = asked_for(rpc);
    if (what == "create-session") {
        xmlNode *data = xml::add(reply.get(), "data");
        xml::add(data, "session-id", std::to_string(++last_session_));
        out_.event(from.called + " opened session " + std::to_string(last_session_));
    } else if (what == "get-capability") {
        xmlNode *list = xml::add(xml::add(reply.get(), "data"), "capabilities");
        xml::add(list, "capability", base_namespace);
        xml::add(list, "capability", notification_namespace);
    } else if (what == "create-subscription") {
        from.subscribed = true;
        xml::add(reply.get(), "ok");
        out_.event(from.called + " subscribed to notifications");
    } else {
        refuse(reply.get(), "protocol", "operation-not-supported", what + " is not served.");
    }
    return reply;
}

bool agent_service::forward(const std::string &notification)
{
    const xml::node_ptr message = element_in("notification", notification_namespace);
    xml::add(message.get(), "eventTime", now());
    const bool is_xml = add_content(message.get(), notification);
    const std::list<agent_ptr> present = agents_.peers(); // one that is broken leaves the list
    for (const agent_ptr &each : present) {
        if (each->subscribed) {
            agents_.talk_to(each, [&] { each->stream.send(message.get()); });
        }
    }
    return is_xml;
}

} // namespace confsim
