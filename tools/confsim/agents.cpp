// See agents.h.
#include "agents.h"

#include "failure.h"

#include <ctime>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

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

// What a request asks for: the element below its filter, or the operation itself.
std::string asked_for(const xmlNode *rpc)
{
    const xmlNode *operation = xml::first_element(rpc);
    if (operation == nullptr) {
        return "";
    }
    const xmlNode *filter = xml::child(operation, "filter");
    const xmlNode *inner = filter == nullptr ? nullptr : xml::first_element(filter);
    return xml::name(inner == nullptr ? operation : inner);
}

void refuse(xmlNode *reply, const std::string &what)
{
    xmlNode *error = xml::add(reply, "rpc-error");
    xml::add(error, "error-type", "protocol");
    xml::add(error, "error-tag", "operation-not-supported");
    xml::add(error, "error-severity", "error");
    xml::add(error, "error-message", what + " is not served.");
}

std::string now()
{
    const std::time_t seconds = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[32];
    return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

// A notification may be an element or any text.
void add_content(xmlNode *notification, const std::string &content)
{
    try {
        const xml::doc_ptr parsed = xml::parse_text(content, "notification");
        xml::add(notification, xml::copy(xmlDocGetRootElement(parsed.get())));
    } catch (const failure &) {
        xml::add(notification, "text", content);
    }
}

} // namespace

agent_service::agent_service(event_loop &loop, const console &out, const tracer &trace,
                             const endpoints &where)
    : loop_(loop), out_(out), trace_(trace), where_(where)
{
    loop_.watch(where_.agent_socket(), POLLIN, [this](short) { accept(); });
}

agent_service::~agent_service()
{
    loop_.forget(where_.agent_socket());
    for (const agent_ptr &each : agents_) {
        loop_.forget(each->stream.descriptor());
    }
}

void agent_service::accept()
{
    const int accepted =
        accept4(where_.agent_socket(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (accepted < 0) {
        return; // gone again
    }
    if (agents_.size() >= most_agents) {
        close(accepted);
        return;
    }
    agents_.push_back(std::make_shared<agent>(accepted, trace_));
    agent &made = *agents_.back();
    made.called = "agent, process " + std::to_string(made.stream.process_id());
    made.stream.set_peer(made.called);
    loop_.watch(accepted, POLLIN, [this, from = std::weak_ptr(agents_.back())](short events) {
        if (const agent_ptr alive = from.lock()) {
            serve(alive, events);
        }
    });
}

void agent_service::serve(const agent_ptr &from, short events)
{
    try {
        if ((events & POLLOUT) != 0) {
            from->stream.flush();
        }
        if ((events & ~POLLOUT) != 0) {
            for (const xml::node_ptr &message : from->stream.receive()) {
                from->stream.send(answer(*from, message.get()).get());
            }
        }
        watch_for_room(*from);
    } catch (const broken &reason) {
        drop(from, reason.what());
    }
}

void agent_service::watch_for_room(const agent &to)
{
    loop_.change(to.stream.descriptor(),
                 static_cast<short>(to.stream.has_unsent() ? POLLIN | POLLOUT : POLLIN));
}

void agent_service::drop(const agent_ptr &whom, const std::string &why)
{
    loop_.forget(whom->stream.descriptor());
    agents_.remove(whom);
    out_.event(whom->called + " " + why);
}

xml::node_ptr agent_service::answer(agent &from, const xmlNode *rpc)
{
    xml::node_ptr reply = element_in("rpc-reply", base_namespace);
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
        refuse(reply.get(), what);
    }
    return reply;
}

void agent_service::forward(const std::string &notification)
{
    const xml::node_ptr message = element_in("notification", notification_namespace);
    xml::add(message.get(), "eventTime", now());
    add_content(message.get(), notification);
    const std::list<agent_ptr> present = agents_; // one that is broken leaves the list
    for (const agent_ptr &each : present) {
        if (!each->subscribed) {
            continue;
        }
        try {
            each->stream.send(message.get());
            watch_for_room(*each);
        } catch (const broken &reason) {
            drop(each, reason.what());
        }
    }
}

} // namespace confsim
