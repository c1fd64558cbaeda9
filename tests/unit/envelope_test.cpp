// Requests and replies: what the builders make and take over, and what the parsers and accessors
// read out of sound and broken documents.
#include "conf_plugin.h"
#include "conf_plugin/xml.h"
#include "test_support.h"
#include "xml_memory.h"

namespace {

using test::parse;
using test::print;
using texts = std::vector<std::string>;

std::string printed(xmlNode *node)
{
    return node == nullptr ? "" : print(node);
}

class Envelope : public test::Fixture {};

TEST_F(Envelope, BuildsRequestsAndReplies)
{
    const struct {
        xmlNode *(*build)(xmlNode *, u32_t);
        const char *content;
        u32_t id;
        const char *expected, *complaint;
    } cases[] = {
        {[](xmlNode *node, u32_t id) { return plugin_build_rpc_message("pull", node, id); },
         "<params/>", 12, "<rpc><method>pull</method><params/><id>12</id></rpc>", ""},
        {[](xmlNode *node, u32_t id) { return plugin_build_rpc_message("a<&", node, id); },
         "<params><p>1</p></params>", 65535,
         "<rpc><method>a&lt;&amp;</method><params><p>1</p></params><id>65535</id></rpc>", ""},
        {[](xmlNode *, u32_t id) { return plugin_build_rpc_message("pull", nullptr, id); },
         "<unused/>", 1, "", "Build rpc <method = pull> message failed."},
        {plugin_build_reply_message, "<result/>", 7, "<reply><result/><id>7</id></reply>", ""},
        {plugin_build_reply_message, "<error><code>1</code></error>", 0,
         "<reply><error><code>1</code></error><id>0</id></reply>", ""},
        {[](xmlNode *, u32_t id) { return plugin_build_reply_message(nullptr, id); }, "<unused/>",
         1, "", "Build reply message failed."},
    };
    for (const auto &c : cases) {
        test::clear_debug_file();
        xmlNode *content = parse(c.content);
        const node_ptr unused(std::string(c.content) == "<unused/>" ? content : nullptr);
        const node_ptr root(c.build(content, c.id));
        EXPECT_EQ(printed(root.get()), c.expected);
        EXPECT_EQ(test::debug_texts(DBG_ERROR),
                  *c.complaint == '\0' ? texts() : texts{c.complaint});
    }
}

TEST_F(Envelope, KeepsAll32BitsOfAnId)
{
    for (const u32_t id : {0U, 1U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        const node_ptr rpc(plugin_build_rpc_message("m", parse("<params/>"), id));
        EXPECT_EQ(plugin_get_msgid(rpc.get()), id);
        const node_ptr reply(plugin_build_reply_message(parse("<result/>"), id));
        EXPECT_EQ(plugin_get_msgid(reply.get()), id);
    }
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
            const int found = test::xml_heap.secrets;
            const node_ptr root(build(content.release()));
            EXPECT_EQ(test::xml_heap.secrets, found) << "wiped before it is freed";
            test::xml_heap.work_again();
            return root ? std::optional(print(root.get())) : std::nullopt;
        };
    };
    test::expect_whole_or_nothing("rpc", test::leaks::none, building([](xmlNode *params) {
                                      return plugin_build_rpc_message("pull", params, 12);
                                  }));
    test::expect_whole_or_nothing("reply", test::leaks::none, building([](xmlNode *result) {
                                      return plugin_build_reply_message(result, 12);
                                  }));
}

TEST_F(Envelope, SplitsRequests)
{
    const struct {
        const char *document;
        int result;
        const char *method, *params;
    } cases[] = {
        {"<rpc><method>pull</method><params><p/></params><id>1</id></rpc>", 0, "pull",
         "<params><p/></params>"},
        {"<other><params/><x/>text<method>m</method></other>", 0, "m", "<params/>"},
        {"<rpc><method>a</method><params>1</params><method>b</method><params>2</params></rpc>", 0,
         "b", "<params>2</params>"},
        {"<rpc xmlns='u:1'><method>m</method><params/></rpc>", 0, "m", "<params/>"},
        {"<rpc><method/><params/></rpc>", -1, nullptr, ""},
        {"<rpc><method><!-- c -->m</method><params/></rpc>", -1, nullptr, ""},
        {"<rpc><params/></rpc>", -1, nullptr, ""},
        {"<rpc><method>m</method></rpc>", -1, nullptr, ""},
        {"<rpc><Method>m</Method><param/></rpc>", -1, nullptr, ""},
        {"<rpc/>", -1, nullptr, ""},
    };
    for (const auto &c : cases) {
        test::clear_debug_file();
        const node_ptr rpc(parse(c.document));
        const char *method = "before";
        xmlNode *params = rpc.get();
        EXPECT_EQ(plugin_parse_rpc(rpc.get(), &method, &params), c.result) << c.document;
        EXPECT_STREQ(method, c.method) << c.document;
        EXPECT_EQ(printed(params), c.params);
        EXPECT_EQ(test::debug_texts(DBG_ERROR),
                  c.result == 0 ? texts()
                                : texts{"Invalid rpc message(without <method> or <params>)."});
    }
}

TEST_F(Envelope, SplitsReplies)
{
    const struct {
        const char *document;
        const char *result, *error, *complaint;
    } cases[] = {
        {"<reply><result><a/></result><id>1</id></reply>", "<result><a/></result>", "", ""},
        {"<reply><id>1</id><error/></reply>", "", "<error/>", ""},
        {"<reply><result>1</result><result>2</result></reply>", "<result>2</result>", "", ""},
        {"<reply><result/><error/></reply>", nullptr, nullptr,
         "Invalid reply message(both <error> and <result>)."},
        {"<reply><id>1</id></reply>", nullptr, nullptr,
         "Invalid reply message(without <error> and <result>)."},
    };
    for (const auto &c : cases) {
        test::clear_debug_file();
        const node_ptr reply(parse(c.document));
        xmlNode *result = reply.get();
        xmlNode *error = reply.get();
        const bool sound = *c.complaint == '\0';
        EXPECT_EQ(plugin_parse_reply(reply.get(), &result, &error), sound ? 0 : -1) << c.document;
        if (sound) {
            EXPECT_EQ(printed(result), c.result);
            EXPECT_EQ(printed(error), c.error);
        }
        EXPECT_EQ(test::debug_texts(DBG_ERROR), sound ? texts() : texts{c.complaint});
    }
}

TEST_F(Envelope, RefusesNullArguments)
{
    const node_ptr root(parse("<rpc><method>m</method><params/><result/></rpc>"));
    const char *method = nullptr;
    xmlNode *node = nullptr;
    char expected[8][128];
    int count = 0;
    for (int null = 0; null < 3; ++null) {
        xmlNode *document = null == 0 ? nullptr : root.get();
        const char **first = null == 1 ? nullptr : &method;
        xmlNode **second = null == 1 ? nullptr : &node;
        xmlNode **third = null == 2 ? nullptr : &node;
        EXPECT_EQ(plugin_parse_rpc(document, first, third), -1);
        std::snprintf(expected[count++], sizeof *expected,
                      "Input parameters error(rpc=%p, method=%p, params=%p).",
                      static_cast<void *>(document), static_cast<void *>(first),
                      static_cast<void *>(third));
        EXPECT_EQ(plugin_parse_reply(document, second, third), -1);
        std::snprintf(expected[count++], sizeof *expected,
                      "Input parameters error(reply=%p, result=%p, error=%p).",
                      static_cast<void *>(document), static_cast<void *>(second),
                      static_cast<void *>(third));
    }
    EXPECT_EQ(test::debug_texts(DBG_ERROR), texts(expected, expected + count));
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
    EXPECT_EQ(test::debug_lines(), texts());
}

} // namespace
