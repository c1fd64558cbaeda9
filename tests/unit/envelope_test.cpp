// Requests and replies: what the builders make and take over, and what the parsers and accessors
// read out of sound and broken documents.
#include "conf_plugin.h"
#include "conf_plugin/xml.h"
#include "test_support.h"
#include "xml_memory.h"

using namespace test;

namespace {

using Envelope = Fixture;

TEST_F(Envelope, BuildsRequestsAndReplies)
{
    for (const u32_t id : {0U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        const std::string end = "<id>" + std::to_string(id) + "</id></";
        const node_ptr rpc(plugin_build_rpc_message("a<&", parse("<params>1</params>"), id));
        EXPECT_EQ(list_of(rpc.get()),
                  "<rpc><method>a&lt;&amp;</method><params>1</params>" + end + "rpc>");
        EXPECT_EQ(plugin_get_msgid(rpc.get()), id);
        const node_ptr reply(plugin_build_reply_message(parse("<result/>"), id));
        EXPECT_EQ(list_of(reply.get()), "<reply><result/>" + end + "reply>");
    }
    EXPECT_EQ(plugin_build_rpc_message("pull", nullptr, 1), nullptr);
    EXPECT_EQ(plugin_build_reply_message(nullptr, 1), nullptr);
    EXPECT_EQ(take_errors(),
              "Build rpc <method = pull> message failed.\nBuild reply message failed.");
}

TEST_F(Envelope, OwnsWhatItWasGivenWhenMemoryRunsOut)
{
    econf_plugin_config_debug(0, 0); // hundreds of failures that are wanted
    const auto building = [](xmlNode *(*build)(xmlNode *)) {
        return [build]() -> std::optional<std::string> {
            node_ptr content(new_element("params"));
            if (!content || add_text(content.get(), "p", "secret") == nullptr) {
                return {};
            }
            const int found = xml_heap.secrets;
            const node_ptr root(build(content.release()));
            EXPECT_EQ(xml_heap.secrets, found) << "wiped before it is freed";
            xml_heap.work_again();
            return root ? std::optional(print(root.get())) : std::nullopt;
        };
    };
    expect_whole_or_nothing("rpc", leaks::none, building([](xmlNode *params) {
                                return plugin_build_rpc_message("pull", params, 12);
                            }));
    expect_whole_or_nothing("reply", leaks::none, building([](xmlNode *result) {
                                return plugin_build_reply_message(result, 12);
                            }));
}

TEST_F(Envelope, SplitsRequests)
{
    const struct {
        const char *document, *method, *params;
    } cases[] = {
        {"<rpc><method>pull</method><params><p/></params><id>1</id></rpc>", "pull",
         "<params><p/></params>"},
        {"<other><params/><x/>text<method>m</method></other>", "m", "<params/>"},
        {"<rpc><method>a</method><params>1</params><method>b</method><params>2</params></rpc>", "b",
         "<params>2</params>"},
        {"<rpc xmlns='u:1'><method>m</method><params/></rpc>", "m", "<params/>"},
        {"<rpc><method/><params/></rpc>", nullptr, ""},
        {"<rpc><method><!-- c -->m</method><params/></rpc>", nullptr, ""},
        {"<rpc><params/></rpc>", nullptr, ""},
        {"<rpc><method>m</method></rpc>", nullptr, ""},
        {"<rpc><Method>m</Method><param/></rpc>", nullptr, ""},
    };
    for (const auto &c : cases) {
        const node_ptr rpc(parse(c.document));
        const char *method = "before";
        xmlNode *params = rpc.get();
        const bool sound = c.method != nullptr;
        EXPECT_EQ(plugin_parse_rpc(rpc.get(), &method, &params), sound ? 0 : -1) << c.document;
        EXPECT_STREQ(method, c.method) << c.document;
        EXPECT_EQ(print(params), c.params);
        EXPECT_EQ(take_errors(), sound ? "" : "Invalid rpc message(without <method> or <params>).");
    }
}

TEST_F(Envelope, SplitsReplies)
{
    const struct {
        const char *document, *result, *error, *complaint = "";
    } cases[] = {
        {"<reply><result><a/></result><id>1</id></reply>", "<result><a/></result>", ""},
        {"<reply><id>1</id><error/></reply>", "", "<error/>"},
        {"<reply><result>1</result><result>2</result></reply>", "<result>2</result>", ""},
        {"<reply><result/><error/></reply>", "<result/>", "<error/>",
         "Invalid reply message(both <error> and <result>)."},
        {"<reply><id>1</id></reply>", "", "",
         "Invalid reply message(without <error> and <result>)."},
    };
    for (const auto &c : cases) {
        const node_ptr reply(parse(c.document));
        xmlNode *result = reply.get();
        xmlNode *error = reply.get();
        EXPECT_EQ(plugin_parse_reply(reply.get(), &result, &error), *c.complaint == '\0' ? 0 : -1);
        EXPECT_EQ(print(result) + print(error), std::string(c.result) + c.error);
        EXPECT_EQ(take_errors(), c.complaint);
    }
}

TEST_F(Envelope, RefusesNullArguments)
{
    const node_ptr root(parse("<rpc><method>m</method><params/><result/></rpc>"));
    const char *method = nullptr;
    xmlNode *node = nullptr;
    EXPECT_EQ(plugin_parse_rpc(nullptr, &method, &node), -1);
    EXPECT_EQ(plugin_parse_rpc(root.get(), nullptr, &node), -1);
    EXPECT_EQ(plugin_parse_rpc(root.get(), &method, nullptr), -1);
    EXPECT_EQ(plugin_parse_reply(nullptr, &node, &node), -1);
    EXPECT_EQ(plugin_parse_reply(root.get(), nullptr, &node), -1);
    take_errors();
    EXPECT_EQ(plugin_parse_reply(root.get(), &node, nullptr), -1);
    EXPECT_EQ(take_errors(), "Input parameters error(reply=" + place(root.get()) +
                                 ", result=" + place(&node) + ", error=(nil)).");
}

TEST_F(Envelope, ReadsIdsAndErrors)
{
    const std::pair<const char *, u32_t> ids[] = {
        {"<rpc><id>0042</id></rpc>", 42},
        {"<rpc><id> 7x</id><id>8</id></rpc>", 7},
        {"<rpc><id>4294967295</id></rpc>", 4294967295U},
        {"<rpc><id>-1</id></rpc>", 4294967295U},
        {"<rpc><id>abc</id></rpc>", 0},
        {"<rpc><id/><id>8</id></rpc>", 0},
        {"<rpc><x><id>8</id></x></rpc>", 0},
        {"<rpc/>", 0},
    };
    for (const auto &[document, id] : ids) {
        const node_ptr root(parse(document));
        EXPECT_EQ(plugin_get_msgid(root.get()), id) << document;
    }
    const struct {
        const char *document;
        int code;
        const char *message;
    } errors[] = {
        {"<error><code>-5</code><message>no &amp; no</message></error>", -5, "no & no"},
        {"<error><message>a</message><code>+7 </code><message>b</message><code>8</code></error>", 7,
         "a"},
        {"<error><code>abc</code><message/></error>", 0, nullptr},
        {"<error><code/></error>", -1, nullptr},
        {"<error>text</error>", -1, nullptr},
    };
    for (const auto &c : errors) {
        const node_ptr root(parse(c.document));
        EXPECT_EQ(plugin_get_reply_errcode(root.get()), c.code) << c.document;
        EXPECT_STREQ(plugin_get_reply_errmsg(root.get()), c.message) << c.document;
    }
    EXPECT_EQ(plugin_get_msgid(nullptr), 0U);
    EXPECT_EQ(plugin_get_reply_errcode(nullptr), -1);
    EXPECT_EQ(plugin_get_reply_errmsg(nullptr), nullptr);
    EXPECT_EQ(debug_lines(), strings());
}

} // namespace
