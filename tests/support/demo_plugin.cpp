// See demo_plugin.h.
#include "demo_plugin.h"

namespace test {

int called_back(const std::string &call, xmlNode *input, xmlNode **output)
{
    called += call;
    if (output != nullptr && act.produce) {
        *output = act.produce(input);
    }
    if (const std::function<void()> inside = act.inside) { // which may change `act`
        inside();
    }
    return act.result;
}

namespace {

int on_config(int session, int oper, int more, int priority, const char *path)
{
    return called_back("config " + numbers(session, oper, more, priority) + text_of(path));
}

int on_status(int session, const char *path, const char *filter, xmlNode **status)
{
    return called_back("status " + numbers(session) + text_of(path) + ' ' + text_of(filter),
                       nullptr, status);
}

int on_operate(int session, xmlNode *input, xmlNode **output)
{
    return called_back("operate " + numbers(session) + list_of(input), input, output);
}

} // namespace

behaviour records(int result, int code, const char *text)
{
    return {result, [=] { econf_plugin_error(code, text); }, {}};
}

behaviour gives(std::function<xmlNode *(xmlNode *input)> produce)
{
    return {0, {}, std::move(produce)};
}

std::function<xmlNode *(xmlNode *)> nodes_of(const std::string &text)
{
    return [=](xmlNode * /*input*/) {
        xmlNode *wrapper = parse("<l>" + text + "</l>");
        xmlNode *list = xmlDocCopyNodeList(nullptr, wrapper->children);
        xmlFreeNode(wrapper);
        return list;
    };
}

std::string publish(const std::string &type, const std::string &info, const std::string &index)
{
    return rpc("publish",
               "<params><type>" + type + "</type><session-id>3</session-id>" + index + "<info>" +
                   info + "</info></params>",
               "17");
}

std::string config(const std::string &path, const std::string &oper)
{
    return publish("config", "<oper-type>" + oper + "</oper-type><more-flag>0</more-flag>" +
                                 "<priority>10</priority><path>" + path + "</path>");
}

std::string operate(const std::string &input, const std::string &index)
{
    return publish("operate", input, "<callback>" + index + "</callback>");
}

std::string subscribe(const std::string &rest, const std::string &index)
{
    return rpc("subscribe",
               "<params><session-id>4</session-id><callback>" + index + "</callback>" + rest +
                   "</params>",
               "17");
}

std::string with_id(const std::string &request, const std::string &id)
{
    return request.substr(0, request.rfind("<id>")) + (id.empty() ? "" : "<id>" + id + "</id>") +
           "</rpc>";
}

std::string succeeded(const std::string &content)
{
    return reply(content, "17");
}

std::string failed(const std::string &code, const std::string &message)
{
    return reply(error(code, message), "17");
}

DemoFixture::DemoFixture()
{
    act = {};
    start(subscriptions());
}

econf_plugin_subpub_info_t subscriptions()
{
    static char reset[] = "reset", none[] = "none";
    static econf_config_cb_info_t configs[] = {{"/demo/settings", 10, on_config}, {}};
    static econf_status_cb_info_t states[] = {{"/demo/state", on_status}, {}};
    static econf_operate_cb_info_t operations[] = {{reset, on_operate}, {none, nullptr}, {}};
    return {configs, states, operations, [] { called_back("kick-off"); }};
}

std::string DemoFixture::handle(const std::string &request)
{
    called.clear();
    peer->send(request.empty() ? "" : framed(request));
    econf_plugin_run();
    std::string replies;
    for (const std::string &body : peer->received()) {
        replies += body;
    }
    return replies;
}

} // namespace test
