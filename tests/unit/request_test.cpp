// Requests of the plugin: the documents they send, what they make of the answer, and the same calls
// in a process with injected hooks.
#include "conf_plugin/xml.h"
#include "fake_daemon.h"

#include <algorithm>

using namespace test;

namespace {

using reading_call = int (*)(int old_flag, const char *path, xmlNode **result);

class RequestTest : public PluginFixture {
protected:
    // Calls while the daemon answers with `content`; the request's id is 3 each time.
    int answered(const std::string &content, const std::function<int()> &call)
    {
        int result = 1;
        clear_debug_file();
        get_plugin_context()->rpc_id = 3;
        request = request_of([&] { result = call(); }, content);
        return result;
    }

    // The debug file without the lines about bytes and events.
    static strings log()
    {
        strings lines = debug_lines();
        std::erase_if(lines, [](const std::string &line) {
            return line.find(" message ") != std::string::npos ||
                   line.find("Syn send rpc on") != std::string::npos;
        });
        return lines;
    }

    std::string request;
};

TEST_F(RequestTest, ReadingCallsCopyWhatTheReplyHolds)
{
    start();
    const struct {
        const char *method;
        reading_call call;
        int old_flag;
        const char *path, *params;
        std::string content, list;
        bool sound = true;
    } cases[] = {
        {"pull", econf_plugin_pull, 0, "/a[k=\"x&y\"]", "<path>/a[k=\"x&amp;y\"]</path>",
         "<result><data><a>1</a><b x=\"2\"><c/></b></data><data><z/></data></result>",
         "<a>1</a><b x=\"2\"><c/></b>"},
        {"pull", econf_plugin_pull, 5, "/a", "<old/><path>/a</path>", "<result><data/></result>",
         ""},
        {"pull", econf_plugin_pull, 1, "/a", "<old/><path>/a</path>", "<result><x/></result>", ""},
        {"pull", econf_plugin_pull, 0, "/a", "<path>/a</path>", error("1", "none"), ""},
        {"pull", econf_plugin_pull, 0, "/a", "<path>/a</path>", "", "", false},
        {"locate", econf_plugin_locate, -1, "/a", "<old/><path>/a</path>",
         "<result><prev>/x[k=&quot;a&amp;b&quot;]</prev><next>/x[k=\"a,b\"]</next>"
         "<other>/x[k=\"v\"]</other><next/><deep><prev>/x[k=\"v\"]</prev></deep></result>",
         "<prev>/x[k=a&amp;b]</prev><next>/x[k=\"a,b\"]</next><other>/x[k=\"v\"]</other><next/>"
         "<deep><prev>/x[k=\"v\"]</prev></deep>"},
        {"locate", econf_plugin_locate, 0, "/a", "<path>/a</path>", "<result/>", ""},
    };
    xmlNode untouched{};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.method) + " " + c.content);
        xmlNode *list = &untouched;
        EXPECT_EQ(answered(c.content, [&] { return c.call(c.old_flag, c.path, &list); }),
                  c.sound ? 0 : -1);
        EXPECT_EQ(request, rpc(c.method, std::string("<params>") + c.params + "</params>", "3"));
        EXPECT_EQ(list_of(list), c.list);
        xmlFreeNodeList(list);
        EXPECT_EQ(log(),
                  c.sound
                      ? strings()
                      : (strings{"[ERROR] - Invalid reply message(without <error> and <result>).",
                                 "[ERROR] - Parse reply for plugin demo rpc failed."}));
    }

    // Requests that fail before or in the exchange.
    peer->close();
    clear_debug_file();
    const char *path = "/a";
    for (const reading_call call : {econf_plugin_pull, econf_plugin_locate}) {
        xmlNode *list = &untouched;
        EXPECT_EQ(call(0, path, &list), -1);
        EXPECT_EQ(list, nullptr);
        list = &untouched;
        EXPECT_EQ(call(0, nullptr, &list), -1);
        EXPECT_EQ(list, nullptr);
        EXPECT_EQ(call(0, path, nullptr), -1);
        EXPECT_EQ(take_errors(), "An error epoll event occur(0x?).\n"
                                 "Plugin demo send rpc to confd failed.\n"
                                 "Input parameters error(path=(nil), result=" +
                                     place(&list) + ").\nInput parameters error(path=" +
                                     place(path) + ", result=(nil)).");
    }
}

TEST_F(RequestTest, WritingCallsSendCopiesAndReportTheOutcome)
{
    start();
    const node_ptr data(parse("<l><a>1</a><b><c/></b>text</l>"));
    xmlNode *const nodes = data->children;
    const std::string path = "<path>/p&amp;q</path>";
    const std::string sent = "<data><a>1</a><b><c/></b>text</data>";
    const auto packet = [](const std::string &what, const std::string &oper) {
        return strings{"[INFO] - Build " + what + " packet, path:/p&q, " + oper + "name:demo",
                       "[INFO] - Begin to send " + what + " packet, name:demo",
                       "[INFO] - End to send " + what + " packet, name:demo"};
    };
    const auto deploy = [=](int oper) {
        return [=] { return econf_plugin_config_deployment("/p&q", oper, nodes); };
    };
    const auto copy = [](int how) {
        return [=] { return econf_plugin_copy_running_to_deployment(how); };
    };
    const struct {
        const char *method;
        std::function<int()> call;
        std::string params, failure; // logged in front of the last line
        strings log = {};            // around the exchange
    } cases[] = {
        {"push", [=] { return econf_plugin_push("/p&q", nodes); }, path + sent, "publish data",
         packet("push", "")},
        {"push", [=] { return econf_plugin_push("/p&q", nodes->next->children); },
         path + "<data><c/></data>", "publish data", packet("push", "")},
        {"config_deployment", deploy(0), path + "<oper-type>add</oper-type>" + sent,
         "publish deployment data", packet("config deployment", "oper:0, ")},
        {"config_deployment", deploy(1), path + "<oper-type>delete</oper-type>" + sent,
         "publish deployment data", packet("config deployment", "oper:1, ")},
        {"config_deployment", deploy(-1), path + "<oper-type>update</oper-type>" + sent,
         "publish deployment data", packet("config deployment", "oper:4294967295, ")},
        {"save_deployment", econf_plugin_save_deployment, "", "save deployment data"},
        {"copy_deployment_to_memory", copy(1), "<override>1</override>",
         "copy deployment to memory data"},
        {"copy_deployment_to_memory", copy(2), "<override>0</override>",
         "copy deployment to memory data"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.method + c.params);
        EXPECT_EQ(answered("<result/>", c.call), 0);
        EXPECT_EQ(request,
                  rpc(c.method,
                      c.params.empty() ? "<params/>" : "<params>" + c.params + "</params>", "3"));
        EXPECT_EQ(log(), c.log);

        EXPECT_EQ(answered(error("4", "full"), c.call), -1);
        strings lines = c.log;
        lines.insert(lines.end() - (lines.empty() ? 0 : 1),
                     {"[ERROR] - Confd reply error(full) for plugin demo rpc.",
                      "[ERROR] - Plugin demo " + c.failure + " failed."});
        EXPECT_EQ(log(), lines);
    }
    EXPECT_EQ(print(data.get()), "<l><a>1</a><b><c/></b>text</l>");
}

// ---- every call with valid arguments, on a daemon's behalf and without one ----------------------

xmlNode some_data{};

int read_null_on_failure(reading_call call, int old_flag)
{
    xmlNode *list = &some_data;
    const int result = call(old_flag, "/a", &list);
    EXPECT_EQ(list, result == 0 ? &some_data : nullptr);
    return result;
}

const struct {
    std::string hook; // as messages name it
    const char *hooked;
    int (*call)();
} all_calls[] = {
    {"locate", "0/a", [] { return read_null_on_failure(econf_plugin_locate, 0); }},
    {"pull", "1/a", [] { return read_null_on_failure(econf_plugin_pull, 5); }},
    {"push", "/a*", [] { return econf_plugin_push("/a", &some_data); }},
    {"config_deployment", "/a2*",
     [] { return econf_plugin_config_deployment("/a", 2, &some_data); }},
    {"save_deployment", "save", econf_plugin_save_deployment},
    {"copy_running_to_deployment", "copy3",
     [] { return econf_plugin_copy_running_to_deployment(3); }},
    {"error", "4text",
     [] {
         econf_plugin_error(4, "text");
         return -1;
     }},
};

TEST_F(RequestTest, NothingIsSentUnlessActiveOrWithNullArguments)
{
    for (const bool registered : {false, true}) {
        if (registered) {
            start();
            get_plugin_context()->bit_activate = 0;
        }
        for (const auto &c : all_calls) {
            EXPECT_EQ(c.call(), -1);
            EXPECT_EQ(take_errors(), "Plugin context is not ready or not be activated.") << c.hook;
        }
    }
    EXPECT_EQ(get_plugin_context()->err_msg, nullptr);

    get_plugin_context()->bit_activate = 1;
    const char *path = "/a";
    const std::string no_path = "Input parameters error(path=(nil), result=" + place(&some_data);
    const std::string no_data = "Input parameters error(path=" + place(path) + ", result=(nil)";
    EXPECT_EQ(econf_plugin_push(nullptr, &some_data), -1);
    EXPECT_EQ(econf_plugin_push(path, nullptr), -1);
    EXPECT_EQ(econf_plugin_config_deployment(nullptr, 0, &some_data), -1);
    EXPECT_EQ(econf_plugin_config_deployment(path, 0, nullptr), -1);
    EXPECT_EQ(take_errors(),
              no_path + ").\n" + no_data + ").\n" + no_path + ").\n" + no_data + ").");
    EXPECT_EQ(peer->received(), strings());
}

std::string hooked; // how a hook was called
int hook_result;

int note(const std::string &call, const xmlNode *data = nullptr)
{
    hooked += call + (data == &some_data ? "*" : "");
    return hook_result;
}

int on_read(bool_t old_flag, const char *path, xmlNode **result)
{
    *result = &some_data;
    return note(std::to_string(old_flag) + path);
}

TEST_F(RequestTest, HooksAreCalledInPlaceOfTheDaemon)
{
    confd_plugin_callback_t hooks{
        on_read,
        on_read,
        [](const char *path, xmlNode *data) { return note(path, data); },
        [](const char *path, int oper, xmlNode *data) {
            return note(path + std::to_string(oper), data);
        },
        [] { return note("save"); },
        [](int override_flag) { return note("copy" + std::to_string(override_flag)); },
        [](int code, const char *text) { note(std::to_string(code) + text); },
        nullptr};
    get_plugin_from_hash()->confd_hooks = &hooks;
    for (const int result : {-7, 0}) {
        hook_result = result;
        for (const auto &c : all_calls) {
            hooked.clear();
            EXPECT_EQ(c.call(), c.hook == "error" ? -1 : result) << c.hook;
            EXPECT_EQ(hooked, c.hooked);
        }
    }
    EXPECT_EQ(take_errors(), "");

    hooks = {};
    for (const auto &c : all_calls) {
        EXPECT_EQ(c.call(), -1);
        EXPECT_EQ(take_errors(), "Confd doesn't inject conf_plugin_" + c.hook + " function.");
    }
}

} // namespace
