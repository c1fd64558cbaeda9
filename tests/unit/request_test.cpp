// Requests of the plugin: the documents they send, what they make of the answer, and the same calls
// in a process with injected hooks.
#include "fake_daemon.h"

#include <cstdio>

namespace {

using strings = std::vector<std::string>;

// Prints a result list and frees it; "untouched" for a pointer that the call did not set.
std::string taken(xmlNode *list, const xmlNode *untouched = nullptr)
{
    if (untouched != nullptr && list == untouched) {
        return "untouched";
    }
    std::string text;
    for (xmlNode *node = list; node != nullptr; node = node->next) {
        text += test::print(node);
    }
    xmlFreeNodeList(list);
    return text;
}

using reading_call = int (*)(int old_flag, const char *path, xmlNode **result);

class RequestTest : public test::PluginFixture {
protected:
    // Calls while the daemon answers with `content`; the request's id is 3 each time.
    template <typename call_type>
    int answered(const std::string &content, const call_type &call)
    {
        test::clear_debug_file();
        get_plugin_context()->rpc_id = 3;
        daemon->play([&](test::Peer &p) { request = p.answer(content); });
        const int result = call();
        daemon->finish();
        return result;
    }

    // The lines of the debug file, without those about bytes and events.
    static strings log()
    {
        strings lines;
        for (const std::string &line : test::debug_lines()) {
            if (line.find(" message ") == std::string::npos &&
                line.find("Syn send rpc on") == std::string::npos) {
                lines.push_back(line);
            }
        }
        return lines;
    }

    static std::string expected(const std::string &method, const std::string &params)
    {
        return test::rpc(method, params.empty() ? "<params/>" : "<params>" + params + "</params>",
                         "3");
    }

    std::string request;
};

TEST_F(RequestTest, ReadingCallsCopyWhatTheReplyHolds)
{
    start();
    const std::string prev = "<prev>/x[k=&quot;a&amp;b&quot;]</prev>";
    const struct {
        const char *method;
        reading_call call;
        int old_flag;
        const char *path;
        const char *params;
        std::string content;
        std::string list;
        strings log = {}; // the call fails when there is one
    } cases[] = {
        {"pull", econf_plugin_pull, 0, "/a[k=\"x&y\"]", "<path>/a[k=\"x&amp;y\"]</path>",
         "<result><data><a>1</a><b x=\"2\"><c/></b></data><data><z/></data></result>",
         "<a>1</a><b x=\"2\"><c/></b>"},
        {"pull", econf_plugin_pull, 5, "/a", "<old/><path>/a</path>", "<result><data/></result>",
         ""},
        {"pull", econf_plugin_pull, 1, "/a", "<old/><path>/a</path>", "<result><x/></result>", ""},
        {"pull", econf_plugin_pull, 0, "/a", "<path>/a</path>", test::error("1", "none"), ""},
        {"pull",
         econf_plugin_pull,
         0,
         "/a",
         "<path>/a</path>",
         "",
         "",
         {"[ERROR] - Invalid reply message(without <error> and <result>).",
          "[ERROR] - Parse reply for plugin demo rpc failed."}},
        {"locate", econf_plugin_locate, -1, "/a", "<old/><path>/a</path>",
         "<result>" + prev + "<next>/x[k=\"a,b\"]</next><other>/x[k=\"v\"]</other><next/><deep>" +
             prev + "</deep></result>",
         "<prev>/x[k=a&amp;b]</prev><next>/x[k=\"a,b\"]</next><other>/x[k=\"v\"]</other><next/>"
         "<deep><prev>/x[k=\"a&amp;b\"]</prev></deep>"},
        {"locate", econf_plugin_locate, 0, "/a", "<path>/a</path>", "<result/>", ""},
        {"locate", econf_plugin_locate, 0, "/a", "<path>/a</path>", test::error("1", "none"), ""},
        {"locate",
         econf_plugin_locate,
         0,
         "/a",
         "<path>/a</path>",
         "<result/><error/>",
         "",
         {"[ERROR] - Invalid reply message(both <error> and <result>).",
          "[ERROR] - Parse reply for plugin demo rpc failed."}},
    };
    const test::Tree sentinel("<sentinel/>");
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.method) + " " + c.content);
        xmlNode *list = sentinel.node;
        EXPECT_EQ(answered(c.content, [&] { return c.call(c.old_flag, c.path, &list); }),
                  c.log.empty() ? 0 : -1);
        EXPECT_EQ(request, expected(c.method, c.params));
        EXPECT_EQ(taken(list, sentinel.node), c.list);
        EXPECT_EQ(log(), c.log);
    }

    // Requests that fail before or in the exchange.
    peer->close();
    for (const reading_call call : {econf_plugin_pull, econf_plugin_locate}) {
        test::clear_debug_file();
        xmlNode *list = sentinel.node;
        EXPECT_EQ(call(0, "/a", &list), -1);
        EXPECT_EQ(list, nullptr);
        list = sentinel.node;
        EXPECT_EQ(call(0, nullptr, &list), -1);
        EXPECT_EQ(list, nullptr);
        const char *path = "/a";
        EXPECT_EQ(call(0, path, nullptr), -1);
        char null_path[100];
        char null_result[100];
        const char *format = "Input parameters error(path=%p, result=%p).";
        (void)std::snprintf(null_path, sizeof null_path, format, nullptr, &list);
        (void)std::snprintf(null_result, sizeof null_result, format, path, nullptr);
        EXPECT_EQ(errors(),
                  (strings{"An error epoll event occur(0x?).",
                           "Plugin demo send rpc to confd failed.", null_path, null_result}));
    }
}

TEST_F(RequestTest, WritingCallsSendCopiesAndReportTheOutcome)
{
    start();
    const test::Tree data("<l><a>1</a><b><c/></b>text</l>");
    xmlNode *const nodes = data.node->children;
    const std::string sent = "<data><a>1</a><b><c/></b>text</data>";
    const std::string path = "<path>/p&amp;q</path>";
    const auto deployment = [](const char *oper) {
        return std::string("[INFO] - Build config deployment packet, path:/p&q, oper:") + oper +
               ", name:demo";
    };
    const strings around{"[INFO] - Begin to send config deployment packet, name:demo",
                         "[INFO] - End to send config deployment packet, name:demo"};
    const struct {
        const char *method;
        std::function<int()> call;
        std::string params;
        strings before; // logged before the exchange, behind it, and between them when it fails
        strings behind;
        const char *failure;
    } cases[] = {
        {"push",
         [&] { return econf_plugin_push("/p&q", nodes); },
         path + sent,
         {"[INFO] - Build push packet, path:/p&q, name:demo",
          "[INFO] - Begin to send push packet, name:demo"},
         {"[INFO] - End to send push packet, name:demo"},
         "Plugin demo publish data failed."},
        {"push",
         [&] { return econf_plugin_push("/p&q", nodes->next->children); },
         path + "<data><c/></data>",
         {"[INFO] - Build push packet, path:/p&q, name:demo",
          "[INFO] - Begin to send push packet, name:demo"},
         {"[INFO] - End to send push packet, name:demo"},
         "Plugin demo publish data failed."},
        {"config_deployment",
         [&] { return econf_plugin_config_deployment("/p&q", 0, nodes); },
         path + "<oper-type>add</oper-type>" + sent,
         {deployment("0"), around[0]},
         {around[1]},
         "Plugin demo publish deployment data failed."},
        {"config_deployment",
         [&] { return econf_plugin_config_deployment("/p&q", 1, nodes); },
         path + "<oper-type>delete</oper-type>" + sent,
         {deployment("1"), around[0]},
         {around[1]},
         "Plugin demo publish deployment data failed."},
        {"config_deployment",
         [&] { return econf_plugin_config_deployment("/p&q", -1, nodes); },
         path + "<oper-type>update</oper-type>" + sent,
         {deployment("4294967295"), around[0]},
         {around[1]},
         "Plugin demo publish deployment data failed."},
        {"save_deployment",
         econf_plugin_save_deployment,
         "",
         {},
         {},
         "Plugin demo save deployment data failed."},
        {"copy_deployment_to_memory",
         [] { return econf_plugin_copy_running_to_deployment(1); },
         "<override>1</override>",
         {},
         {},
         "Plugin demo copy deployment to memory data failed."},
        {"copy_deployment_to_memory",
         [] { return econf_plugin_copy_running_to_deployment(2); },
         "<override>0</override>",
         {},
         {},
         "Plugin demo copy deployment to memory data failed."},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.method);
        strings lines = c.before;
        lines.insert(lines.end(), c.behind.begin(), c.behind.end());
        EXPECT_EQ(answered("<result/>", c.call), 0);
        EXPECT_EQ(request, expected(c.method, c.params));
        EXPECT_EQ(log(), lines);

        EXPECT_EQ(answered(test::error("4", "full"), c.call), -1);
        lines = c.before;
        lines.emplace_back("[ERROR] - Confd reply error(full) for plugin demo rpc.");
        lines.push_back(std::string("[ERROR] - ") + c.failure);
        lines.insert(lines.end(), c.behind.begin(), c.behind.end());
        EXPECT_EQ(log(), lines);
    }
    EXPECT_EQ(test::print(data.node), "<l><a>1</a><b><c/></b>text</l>");
}

// Every call with valid arguments: the slot of each in a message, and its result.
const test::Tree &some_data()
{
    static const test::Tree data("<d/>");
    return data;
}

struct any_call {
    const char *slot;
    int (*call)();
};

const any_call all_calls[] = {
    {"locate",
     [] {
         xmlNode *list = some_data().node;
         const int result = econf_plugin_locate(0, "/a", &list);
         EXPECT_EQ(list, nullptr);
         return result;
     }},
    {"pull",
     [] {
         xmlNode *list = some_data().node;
         const int result = econf_plugin_pull(0, "/a", &list);
         EXPECT_EQ(list, nullptr);
         return result;
     }},
    {"push", [] { return econf_plugin_push("/a", some_data().node); }},
    {"config_deployment", [] { return econf_plugin_config_deployment("/a", 2, some_data().node); }},
    {"save_deployment", [] { return econf_plugin_save_deployment(); }},
    {"copy_running_to_deployment", [] { return econf_plugin_copy_running_to_deployment(3); }},
    {"error",
     [] {
         econf_plugin_error(4, "text");
         return -1;
     }},
};

TEST_F(RequestTest, NothingIsSentUnlessActive)
{
    for (const bool registered : {false, true}) {
        if (registered) {
            start();
            get_plugin_context()->bit_activate = 0;
        }
        for (const any_call &c : all_calls) {
            SCOPED_TRACE(c.slot);
            test::clear_debug_file();
            EXPECT_EQ(c.call(), -1);
            EXPECT_EQ(errors(), strings{"Plugin context is not ready or not be activated."});
        }
    }
    EXPECT_EQ(peer->received(), strings{});
    EXPECT_EQ(get_plugin_context()->err_msg, nullptr);
}

TEST_F(RequestTest, RefusesNullArguments)
{
    start();
    EXPECT_EQ(econf_plugin_push(nullptr, some_data().node), -1);
    EXPECT_EQ(econf_plugin_push("/a", nullptr), -1);
    EXPECT_EQ(econf_plugin_config_deployment(nullptr, 0, some_data().node), -1);
    EXPECT_EQ(econf_plugin_config_deployment("/a", 0, nullptr), -1);
    const strings found = errors();
    ASSERT_EQ(found.size(), 4U);
    for (const std::string &text : found) {
        EXPECT_TRUE(text.starts_with("Input parameters error(path=")) << text;
    }
    EXPECT_EQ(peer->received(), strings{});
}

// ---- inside the daemon -------------------------------------------------------------------------

std::string hooked; // how the hooks were called
int hook_result;

int on_read(bool_t old_flag, const char *path, xmlNode **result)
{
    hooked += std::to_string(old_flag) + path;
    *result = some_data().node;
    return hook_result;
}
int on_push(const char *path, xmlNode *data)
{
    hooked += path + test::print(data);
    return hook_result;
}
int on_config_deployment(const char *path, int oper, xmlNode *data)
{
    hooked += path + std::to_string(oper) + test::print(data);
    return hook_result;
}
int on_save()
{
    hooked += "save";
    return hook_result;
}
int on_copy(int override_flag)
{
    hooked += "copy" + std::to_string(override_flag);
    return hook_result;
}
void on_error(int code, const char *text)
{
    hooked += std::to_string(code) + text;
}

TEST_F(RequestTest, HooksAreCalledInPlaceOfTheDaemon)
{
    confd_plugin_callback_t hooks{on_read, on_read, on_push,  on_config_deployment,
                                  on_save, on_copy, on_error, nullptr};
    get_plugin_from_hash()->confd_hooks = &hooks;
    hook_result = -7;
    const char *const calls[] = {"0/a", "0/a", "/a<d/>", "/a2<d/>", "save", "copy3", "4text"};
    std::size_t i = 0;
    for (const any_call &c : all_calls) {
        SCOPED_TRACE(c.slot);
        hooked.clear();
        EXPECT_EQ(c.call(), c.slot == std::string("error") ? -1 : -7);
        EXPECT_EQ(hooked, calls[i++]);
    }
    hook_result = 0;
    for (const reading_call call : {econf_plugin_pull, econf_plugin_locate}) {
        hooked.clear();
        xmlNode *list = nullptr;
        EXPECT_EQ(call(5, "/b", &list), 0);
        EXPECT_EQ(list, some_data().node);
        EXPECT_EQ(hooked, "1/b");
    }
    EXPECT_EQ(errors(), strings{});

    hooks = {};
    for (const any_call &c : all_calls) {
        test::clear_debug_file();
        EXPECT_EQ(c.call(), -1);
        EXPECT_EQ(errors(), strings{std::string("Confd doesn't inject conf_plugin_") + c.slot +
                                    " function."});
    }
}

} // namespace
