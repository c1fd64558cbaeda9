// One plugin, twice: in a process of its own, which the daemon reaches over a socket, and inside
// the daemon, which has injected its hooks. It must see the same both times, and so must the
// daemon, but for what the table of differences names.
#include "demo_plugin.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <utility>

using namespace test;

namespace {

// ---- the daemon, for both ----------------------------------------------------------------------

// The daemon over the socket has a thread of its own.
std::mutex lock;
std::string asked;                 // what the plugin requested, without ids
std::string got;                   // and what it replied
std::atomic<bool> replied = false; // since the last message to it

struct answer {
    const char *request; // a part of it
    int refusal;         // 0 for none
    const char *content;
};

const answer answers[] = {
    {"pull</method><params><path>/demo/a<", 0, "<a>1</a><b x=\"2\"><c/></b>"},
    {"pull</method><params><old/><path>/demo/a<", 0, "<a>0</a>"},
    {"locate</method><params><path>/demo/a<", 0, "<prev>/demo/z</prev><next/><o>p</o>"},
    {"locate</method><params><old/><path>/demo/a<", 0, "<next>/b[k=\"1\"]</next>"},
    {"<path>/demo/forbidden<", 4, "forbidden"},
    {"", 0, ""},
};

const answer &answer_to(const std::string &request)
{
    const std::lock_guard guard(lock);
    asked += request;
    return *std::find_if(std::begin(answers), std::end(answers), [&](const answer &a) {
        return request.find(a.request) != std::string::npos;
    });
}

std::string wrap(const std::string &name, const std::string &content)
{
    return content.empty() ? "<" + name + "/>" : "<" + name + ">" + content + "</" + name + ">";
}

// What stands in the first element of that name from `start` on.
std::string content_of(const std::string &name, const std::string &text, std::size_t start = 0)
{
    const std::size_t begin = text.find("<" + name + ">", start);
    const std::size_t end = text.find("</" + name + ">", begin);
    return end == std::string::npos ? "" : text.substr(begin, end - begin).substr(name.size() + 2);
}

// ---- the daemon over the socket ----------------------------------------------------------------

void serve(Peer &plugin, const std::string &message)
{
    const std::string method = content_of("method", message);
    if (method.empty()) {
        got = message;
        replied = true;
        return;
    }
    const std::size_t end = message.rfind("<id>");
    std::string content = "<result/>";
    if (method != "register" && method.find("activate") == std::string::npos) {
        const answer &a = answer_to(message.substr(0, end));
        content = a.refusal != 0
                      ? error(std::to_string(a.refusal), a.content)
                      : wrap("result", method == "pull" ? wrap("data", a.content) : a.content);
    }
    plugin.send(framed(reply(content, content_of("id", message, end))));
}

// ---- the daemon around the plugin --------------------------------------------------------------

std::string recorded; // the error reply that the plugin asked for

std::string requested(const std::string &method, const std::string &params)
{
    return "<rpc>" + wrap("method", method) + wrap("params", params);
}

int ask(const std::string &method, const std::string &params, xmlNode **list = nullptr)
{
    const answer &a = answer_to(requested(method, params));
    if (list != nullptr && a.refusal == 0) {
        *list = nodes_of(wrap("list", a.content))(nullptr);
    }
    return a.refusal;
}

confd_plugin_callback_t hooks = {
    [](bool_t old, const char *path, xmlNode **list) {
        return ask("locate", (old ? "<old/>" : "") + wrap("path", path), list);
    },
    [](bool_t old, const char *path, xmlNode **list) {
        return ask("pull", (old ? "<old/>" : "") + wrap("path", path), list);
    },
    [](const char *path, xmlNode *data) {
        return ask("push", wrap("path", path) + wrap("data", list_of(data)));
    },
    [](const char *path, int oper, xmlNode *data) {
        const char *const word = oper == 0 ? "add" : oper == 1 ? "delete" : "update";
        return ask("config_deployment",
                   wrap("path", path) + wrap("oper-type", word) + wrap("data", list_of(data)));
    },
    [] { return ask("save_deployment", ""); },
    [](int flag) {
        return ask("copy_deployment_to_memory", wrap("override", std::to_string(flag)));
    },
    [](int code, const char *text) {
        recorded = failed(std::to_string(code), text == nullptr ? default_error : text);
    },
    [](int session, xmlNode *, xmlNode *) { return session; },
};

// Does what the message would make the event loop do, and returns the reply to it.
std::string call_directly(const econf_plugin_subpub_info_t &plugin, const std::string &message)
{
    const std::string path = content_of("path", message);
    const std::string filter = content_of("filter", message);
    xmlNode *input = parse(wrap("info", content_of("info", message)));
    int result = 0;
    xmlNode *output = nullptr;
    std::string content = "<result/>";
    recorded.clear();
    if (content_of("type", message) == "config") {
        result = plugin.config_cbs->callback(3, 1, 0, 10, path.c_str());
    } else if (content_of("type", message) == "operate") {
        result = plugin.operate_cbs->callback(3, input->children, &output);
        content = wrap("result", list_of(output));
    } else if (content_of("method", message) == "subscribe") {
        result = plugin.status_cbs->callback(4, path.c_str(), filter.c_str(), &output);
        content = wrap("result", wrap("path", path) + wrap("data", list_of(output)));
    } else {
        plugin.kick_off();
    }
    xmlFreeNodeList(output);
    xmlFreeNode(input);
    if (result == 0) {
        return succeeded(content);
    }
    return recorded.empty() ? failed(std::to_string(result)) : recorded;
}

// ---- the plugin --------------------------------------------------------------------------------

std::string read(int (*reading)(int, const char *, xmlNode **), int old_flag, const char *path)
{
    xmlNode *list = nullptr;
    const std::string result = std::to_string(reading(old_flag, path, &list));
    const std::string text = result + " " + list_of(list);
    xmlFreeNodeList(list);
    return text;
}

void read_inside()
{
    for (const int old_flag : {0, 1}) {
        called += ' ' + read(econf_plugin_pull, old_flag, "/demo/a");
    }
}

// A step at which the plugin, or the daemon, sees something else by design.
struct difference {
    std::string step, outside, inside; // the daemon
};

const std::string present = "0 <a>1</a><b x=\"2\"><c/></b>";
const std::string pull = requested("pull", "<path>/demo/a</path>");
const std::string locate = requested("locate", "<old/><path>/demo/a</path>");
const std::string no_pull = requested("pull", "<path>/demo/forbidden</path>");
const std::string no_push = requested("push", "<path>/demo/forbidden</path><data>text</data>");
const std::string copy = "copy_deployment_to_memory";

const difference differences[] = {
    {"register", "1", "0"},
    {"pull before", "-1 ", present + pull},
    {"activate", "0", "-1"},
    {"pull forbidden", "0 " + no_pull, "4 " + no_pull},
    {"quoted neighbour", "0 <next>/b[k=1]</next>" + locate, "0 <next>/b[k=\"1\"]</next>" + locate},
    {"push forbidden", "-1" + no_push, "4" + no_push},
    {"copy 2", "0" + requested(copy, "<override>0</override>"),
     "0" + requested(copy, "<override>2</override>")},
    {"socket", "1", "0"},
    {"reply", "-1", "6"},
    {"quoted path", "config 3 1 0 10 /b[k=1]" + succeeded(),
     "config 3 1 0 10 /b[k=\"1\"]" + succeeded()},
    {"no output", "operate 3 " + succeeded("<result><ok/></result>"), "operate 3 " + succeeded()},
    {"pull after", "-1 ", present + pull},
};

class ModesTest : public DemoFixture {
protected:
    void SetUp() override { PluginFixture::SetUp(); }

    // Notes what the plugin has seen at a step, and then the daemon.
    void see(const char *step, const std::string &seen)
    {
        const std::lock_guard guard(lock);
        std::string line = seen + std::exchange(asked, "") + std::exchange(got, "");
        for (const difference &d : differences) {
            if (d.step == step) {
                EXPECT_EQ(line, is_inside ? d.inside : d.outside) << step;
                line = "as in the table of differences";
            }
        }
        transcript += std::string(step) + ": " + line + "\n";
    }
    void see(const char *step, int result) { see(step, std::to_string(result)); }

    // The daemon sends a message, and the callback behaves in a certain way.
    void handle(const char *step, const std::string &message, const behaviour &does = {})
    {
        act = does;
        called.clear();
        if (is_inside) {
            got = call_directly(subscriptions(), message);
        } else {
            replied = false;
            peer->send(framed(message));
            econf_plugin_run();
            while (!replied) {
                std::this_thread::yield();
            }
        }
        see(step, called);
    }

    std::string run_plugin()
    {
        econf_plugin_subpub_info_t info = subscriptions();
        xmlNode *const data = parse("<l><a>1</a><b><c/></b>text</l>");
        xmlNode *const nodes = data->children;
        transcript.clear();
        see("register", econf_plugin_init("demo", &info) >= 0);
        see("pull before", read(econf_plugin_pull, 0, "/demo/a"));
        see("activate", econf_plugin_activate(ACTIVATE_WITH_NONE));
        see("pull", read(econf_plugin_pull, 0, "/demo/a"));
        see("pull old", read(econf_plugin_pull, 5, "/demo/a"));
        see("pull nothing", read(econf_plugin_pull, 0, "/demo/none"));
        see("pull forbidden", read(econf_plugin_pull, 0, "/demo/forbidden"));
        see("pull null", read(econf_plugin_pull, 0, nullptr));
        see("locate", read(econf_plugin_locate, 0, "/demo/a"));
        see("quoted neighbour", read(econf_plugin_locate, 1, "/demo/a"));
        see("push", econf_plugin_push("/demo/a", nodes->next));
        see("push forbidden", econf_plugin_push("/demo/forbidden", data->last));
        see("push null", econf_plugin_push("/demo/a", nullptr));
        for (const int oper : {0, 1, -1}) {
            see("stage", econf_plugin_config_deployment("/demo/a", oper, nodes));
        }
        see("save", econf_plugin_save_deployment());
        see("copy 1", econf_plugin_copy_running_to_deployment(1));
        see("copy 2", econf_plugin_copy_running_to_deployment(2));
        see("socket", conf_plg_get_hconf(nullptr) >= 0);
        see("reply", conf_send_reply(6, nullptr, nullptr));
        handle("change", config("/b"), {0, read_inside, {}});
        handle("quoted path", config("/b[k=\"1\"]"));
        handle("refused", config("/b"), returns(22));
        handle("own error", config("/b"), records(1, 7, "no room"));
        handle("own error without text", config("/b"), records(1, 7, nullptr));
        handle("error, but accepted", config("/b"), records(0, 7, "no room"));
        const std::string status = subscribe("<path>/demo/state</path><filter>all</filter>");
        handle("status", status, {0, read_inside, element("<s>1</s>")});
        handle("no status", status);
        handle("status refused", status, {5, {}, element("<s/>")});
        handle("operation", operate("<in>1</in><in/>"),
               {0, read_inside, nodes_of("<o><x>1</x><y/></o>")});
        handle("no output", operate(""));
        handle("operation refused", operate("<in/>"), records(2, 9, "not now"));
        handle("kick-off", kick_off, {0, read_inside, {}});
        econf_plugin_deactivate();
        see("pull after", read(econf_plugin_pull, 0, "/demo/a"));
        econf_plugin_close();
        xmlFreeNode(data);
        return transcript;
    }

    bool is_inside = false;
    std::string transcript;
};

TEST_F(ModesTest, APluginSeesTheSameOutsideAndInsideTheDaemon)
{
    std::atomic<bool> done = false;
    daemon->play([&](Peer &plugin) {
        peer = &plugin;
        while (!done) {
            for (const std::string &message : plugin.received()) {
                serve(plugin, message);
            }
            std::this_thread::yield();
        }
    });
    const std::string outside = run_plugin();
    done = true;
    daemon->finish();

    ASSERT_EQ(conf_plugin_init_api(&hooks), 0);
    is_inside = true;
    EXPECT_EQ(outside, run_plugin());
    confd_plugin_callback_t *installed = get_plugin_hooks();
    del_plugin_from_hash();
    std::free(installed);
}

} // namespace
