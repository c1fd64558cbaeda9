// Requests and replies: what the builders make and take over, and what the parsers and accessors
// read out of sound and broken documents.
#include "conf_plugin.h"
#include "conf_plugin/xml.h"
#include "test_support.h"

#include <cstring>
#include <libxml/parser.h>
#include <utility>

using namespace test;

namespace {

using Envelope = Fixture;

bool no_memory; // for the next allocation of libxml2

TEST_F(Envelope, BuildsAndOwnsWhatItWasGiven)
{
    const node_ptr rpc(plugin_build_rpc_message("a<&", parse("<params>1</params>"), 0xffffffffU));
    EXPECT_EQ(print(rpc.get()), "<rpc><method>a&lt;&amp;</method><params>1</params>"
                                "<id>4294967295</id></rpc>");
    const node_ptr reply(plugin_build_reply_message(parse("<result/>"), 0x80000000U));
    EXPECT_EQ(print(reply.get()), "<reply><result/><id>2147483648</id></reply>");
    EXPECT_EQ(plugin_build_rpc_message("pull", nullptr, 1), nullptr);
    EXPECT_EQ(plugin_build_reply_message(nullptr, 1), nullptr);
    EXPECT_EQ(take_errors(),
              "Build rpc <method = pull> message failed.\nBuild reply message failed.");
    xmlDoc *doc = xmlReadDoc(BAD_CAST "<own><result>1</result></own>", nullptr, nullptr, 0);
    xmlNode *shared = xmlDocGetRootElement(doc)->children; // its name is the dictionary's
    xmlUnlinkNode(shared);
    EXPECT_EQ(print(node_ptr(plugin_build_reply_message(shared, 2)).get()),
              "<reply><result>1</result><id>2</id></reply>");
    xmlFreeDoc(doc);
    // Without memory, what was given is wiped before it is freed.
    xmlMemSetup(
        std::free,
        [](std::size_t size) { return std::exchange(no_memory, false) ? nullptr : malloc(size); },
        std::realloc, strdup);
    for (const bool is_rpc : {true, false}) {
        xmlNode *given = parse("<params>secret</params>");
        xmlDeregisterNodeDefault([](xmlNode *freed) {
            EXPECT_NE(freed->type == XML_TEXT_NODE ? list_of(freed) : "", "secret");
        });
        no_memory = true;
        EXPECT_EQ(is_rpc ? plugin_build_rpc_message("pull", given, 1)
                         : plugin_build_reply_message(given, 1),
                  nullptr);
        xmlDeregisterNodeDefault(nullptr);
    }
}

// Result, parts and complaints.
std::string split(const std::string &document)
{
    const node_ptr root(parse(document));
    const char *method = "before";
    xmlNode *first = root.get(), *second = root.get();
    const bool is_rpc = document.starts_with("<rpc");
    const int result = is_rpc ? plugin_parse_rpc(root.get(), &method, &first)
                              : plugin_parse_reply(root.get(), &first, &second);
    const std::string other = !is_rpc ? print(second) : method == nullptr ? "null" : method;
    return std::to_string(result) + ' ' + print(first) + ' ' + other + ' ' + take_errors();
}

TEST_F(Envelope, Splits)
{
    const std::string invalid = "-1  null Invalid rpc message(without <method> or <params>).";
    const std::pair<const char *, std::string> rows[] = {
        {"<rpc xmlns='u:1'><params/><x/>text<method>m</method></rpc>", "0 <params/> m "},
        {"<rpc><method>a</method><params>1</params><method>b</method><params>2</params></rpc>",
         "0 <params>2</params> b "},
        {"<rpc><method><!-- c -->m</method><params/></rpc>", invalid},
        {"<reply><result>1</result><result>2</result></reply>", "0 <result>2</result>  "},
        {"<reply><result/><error/></reply>",
         "-1 <result/> <error/> Invalid reply message(both <error> and <result>)."},
        {"<reply/>", "-1   Invalid reply message(without <error> and <result>)."},
    };
    for (const auto &[document, expected] : rows) {
        EXPECT_EQ(split(document), expected) << document;
    }
    const node_ptr root(parse("<r/>"));
    const char *method = nullptr;
    xmlNode *r = root.get(), *node = nullptr;
    EXPECT_EQ(plugin_parse_rpc(r, nullptr, &node), -1);
    EXPECT_EQ(plugin_parse_rpc(r, &method, nullptr), -1);
    EXPECT_EQ(plugin_parse_reply(r, nullptr, &node), -1);
    EXPECT_EQ(plugin_parse_reply(r, &node, nullptr), -1);
}

TEST_F(Envelope, ReadsIdsAndErrors)
{
    // Id, code and message.
    const std::tuple<const char *, u32_t, int, const char *> rows[] = {
        {"<r><id>0042</id><code>-5</code><message>no &amp; no</message></r>", 42, -5, "no & no"},
        {"<r><message>a</message><id> 7x</id><code>+7 </code><id>8</id></r>", 7, 7, "a"},
        {"<r><id>4294967295</id><code>abc</code><message/></r>", 4294967295U, 0, nullptr},
        {"<r><id>-1</id><code/><message>b</message></r>", 4294967295U, -1, "b"},
        {"<r><id/><id>8</id><x><code>1</code></x></r>", 0, -1, nullptr},
        {"", 0, -1, nullptr},
    };
    for (const auto &[document, id, code, message] : rows) {
        const node_ptr root(parse(document));
        EXPECT_EQ(plugin_get_msgid(root.get()), id) << document;
        EXPECT_EQ(plugin_get_reply_errcode(root.get()), code) << document;
        EXPECT_STREQ(plugin_get_reply_errmsg(root.get()), message) << document;
    }
}

} // namespace
