// What the printer makes of bytes and nodes that XML cannot hold. That it prints all others as
// libxml2 does, the fuzz target "xml" shows.
#include "conf_plugin/xml.h"
#include "conf_plugin/xml_write.h"
#include "test_support.h"
#include "timing.h"

#include <libxml/parserInternals.h>
#include <sys/resource.h>

using namespace test;

namespace {

// The text, "-" for what is not printable.
std::string text_of(const xmlNode *node, odd_bytes odd)
{
    text_block block;
    const printed result = print_node(&block, node, odd);
    return result == printed::whole ? std::string(block.bytes, block.size) : "-";
}

using XmlWrite = Fixture;

TEST_F(XmlWrite, OddBytesAreRefusedOrReplaced)
{
    const struct {
        const char *text, *strict, *lenient;
    } rows[] = {
        {"x\x01y", "x y", "x y"},
        {"\xff\xc3", "-", "\xef\xbf\xbd\xef\xbf\xbd"},
        {"\xc0\x80", "-", "\xef\xbf\xbd\xef\xbf\xbd"},
        {"\xed\xa0\x80", "-", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
        {"\xef\xbf\xbf<", "-", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd&lt;"},
        {"\xf0\x9f\x98\x80", "\xf0\x9f\x98\x80", "\xf0\x9f\x98\x80"},
    };
    for (const auto &[text, strict, lenient] : rows) {
        const node_ptr node(xmlNewText(BAD_CAST text));
        EXPECT_EQ(text_of(node.get(), odd_bytes::refused), strict) << text;
        EXPECT_EQ(text_of(node.get(), odd_bytes::replaced), lenient) << text;
    }
    const node_ptr node(new_element("a"));
    ASSERT_TRUE(set_attribute(node.get(), "k", "\x02"));
    node->properties->children->content[0] = 0xff;
    EXPECT_EQ(text_of(node.get(), odd_bytes::refused), "-");
    EXPECT_EQ(text_of(node.get(), odd_bytes::replaced), "<a k=\"&#xFFFD;\"/>");
    ASSERT_NE(declare_namespace(node.get(), "p", "?a&b&amp;'\"<"), nullptr); // not by libxml2
    EXPECT_EQ(text_of(node.get(), odd_bytes::replaced),
              "<a xmlns:p=\"?a&amp;b&amp;'&quot;&lt;\" k=\"&#xFFFD;\"/>");

    // Like libxml2, the printer passes over what is no declaration, and what is no text of a value.
    xmlNode *const comment = xmlNewComment(BAD_CAST "c");
    node->properties->children->next = node->properties->last = comment;
    comment->prev = node->properties->children;
    comment->parent = reinterpret_cast<xmlNode *>(node->properties);
    node->nsDef->type = XML_ATTRIBUTE_DECL;
    EXPECT_EQ(text_of(node.get(), odd_bytes::replaced), "<a k=\"&#xFFFD;\"/>");
    node->nsDef->type = XML_LOCAL_NAMESPACE;
    xmlFree(const_cast<xmlChar *>(std::exchange(node->nsDef->href, nullptr)));
    EXPECT_EQ(text_of(node.get(), odd_bytes::replaced), "<a k=\"&#xFFFD;\"/>");
}

TEST_F(XmlWrite, WhatHasNoTextIsRefusedAndNothingOfItStays)
{
    xmlDoc *document = xmlNewDoc(nullptr);
    const auto refused = [](const char *name, xmlNode *odd) {
        const node_ptr parent(new_element("a"));
        ASSERT_NE(add_text(parent.get(), "b", "text"), nullptr);
        odd->parent = parent.get();
        odd->prev = parent->last;
        parent->last = parent->last->next = odd;
        conf_buffer_t *buffer = conf_buffer_create(0);
        EXPECT_EQ(print_node(&buffer, parent.get(), odd_bytes::replaced), printed::not_printable)
            << name;
        EXPECT_EQ(std::string(buffer->buf, 100), std::string(100, '\0')) << name;
        conf_buffer_destroy(buffer);
        parent->last = odd->prev;
        parent->last->next = nullptr;
        odd->parent = odd->prev = nullptr;
        if (odd->type != XML_DOCUMENT_NODE) {
            xmlFreeNode(odd);
        }
    };
    refused("document", reinterpret_cast<xmlNode *>(document));
    refused("declarations",
            reinterpret_cast<xmlNode *>(xmlNewDtd(nullptr, BAD_CAST "a", nullptr, nullptr)));
    refused("entity", xmlNewReference(nullptr, BAD_CAST "e"));
    refused("name", xmlNewNode(nullptr, BAD_CAST "a b"));
    refused("target", xmlNewPI(BAD_CAST "XML", nullptr));
    refused("instruction", xmlNewPI(BAD_CAST "p", BAD_CAST "x?>"));
    refused("comment", xmlNewComment(BAD_CAST "x--y"));
    refused("comment", xmlNewComment(BAD_CAST "x-"));
    xmlNode *broken = new_element("a");
    xmlNode *child = add_element(broken, "b");
    child->parent = nullptr;
    refused("links", broken);
    broken = new_element("a");
    child = add_element(broken, "b");
    add_element(broken, "c")->parent = child;
    refused("links of siblings", broken);
    for (xmlNode *nameless : {new_element("a"), xmlNewReference(nullptr, BAD_CAST "lt")}) {
        xmlFree(const_cast<xmlChar *>(std::exchange(nameless->name, nullptr)));
        refused("no name", nameless);
    }
    const node_ptr empty(xmlNewText(BAD_CAST ""));
    EXPECT_EQ(text_of(empty.get(), odd_bytes::refused), "-");
    xmlFreeDoc(document);
}

// A tree of every kind of node, printed into room that ends at each of its bytes.
TEST_F(XmlWrite, EndsWhereTheRoomEndsAndLeavesNothing)
{
    if (sizeof(void *) == 4) {
        GTEST_SKIP() << "qemu sets no limits to memory";
    }
    const node_ptr node(new_element("a"));
    xmlNs *const space = declare_namespace(node.get(), "p", "v\"<");
    ASSERT_NE(space, nullptr);
    ASSERT_NE(xmlNewNs(node.get(), BAD_CAST "u", nullptr), nullptr);
    ASSERT_NE(xmlNewNsProp(node.get(), space, BAD_CAST "k", BAD_CAST "<x\xc3\xa9\xf4\x8f\xbf\xbf"),
              nullptr);
    for (xmlNode *each :
         {xmlNewText(BAD_CAST "t<\xc3\xa9\r"), xmlNewComment(BAD_CAST "c"),
          xmlNewPI(BAD_CAST "i", BAD_CAST "d"), xmlNewReference(nullptr, BAD_CAST "lt"),
          xmlNewCDataBlock(nullptr, BAD_CAST "x]]>y", 5), xmlNewNode(space, BAD_CAST "b"),
          xmlNewCDataBlock(nullptr, nullptr, 0), xmlNewComment(nullptr)}) {
        ASSERT_NE(xmlAddChild(node.get(), each), nullptr);
    }
    const std::string whole = text_of(node.get(), odd_bytes::refused);
    ASSERT_EQ(whole,
              "<a xmlns:p='v\"&lt;' xmlns=\"u\" p:k=\"&lt;x&#xE9;&#x10FFFF;\">t&lt;\xc3\xa9&#13;"
              "<!--c--><?i d?>&lt;<![CDATA[x]]]]><![CDATA[>y]]><p:b/><![CDATA[]]></a>");
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &usual), 0);
    const rlimit none{4096, usual.rlim_max}; // no mapping grows
    for (std::size_t room = 0; room <= whole.size() + 4; ++room) {
        conf_buffer_t *buffer = conf_buffer_create(0);
        const std::string before(4087 - room, 'x');
        ASSERT_EQ(conf_buffer_append(&buffer, const_cast<char *>(before.data()),
                                     static_cast<int>(before.size())),
                  0);
        ASSERT_EQ(setrlimit(RLIMIT_AS, &none), 0);
        const printed result = print_node(&buffer, node.get(), odd_bytes::refused);
        ASSERT_EQ(setrlimit(RLIMIT_AS, &usual), 0);
        const bool fits = result == printed::whole;
        EXPECT_EQ(result, fits ? printed::whole : printed::no_room) << room;
        EXPECT_EQ(fits, room >= whole.size()) << room;
        EXPECT_EQ(std::string(buffer->buf, 4088),
                  before + (fits ? whole : "") +
                      std::string(4088 - before.size() - (fits ? whole.size() : 0), '\0'))
            << room;
        conf_buffer_destroy(buffer);
        (void)take_system_log();
    }
}

TEST_F(XmlWrite, GrowsWhileItPrints)
{
    const node_ptr node(new_element("a"));
    ASSERT_NE(add_text(node.get(), "b", repeat("x<\xc3\xa9", 200000).c_str()), nullptr);
    const std::string expected = "<a><b>" + repeat("x&lt;\xc3\xa9", 200000) + "</b></a>";
    EXPECT_TRUE(text_of(node.get(), odd_bytes::refused) == expected);
    conf_buffer_t *buffer = conf_buffer_create(0);
    for (const char *round : {"first", "second"}) {
        const auto used = static_cast<std::size_t>(buffer->used);
        ASSERT_EQ(print_node(&buffer, node.get(), odd_bytes::refused), printed::whole) << round;
        EXPECT_TRUE(std::string(buffer->buf + used) == expected) << round;
        EXPECT_EQ(static_cast<std::size_t>(buffer->used), used + expected.size());
    }
    conf_buffer_destroy(buffer);
}

} // namespace
