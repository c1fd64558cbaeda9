// Which documents the reader takes, what it does without memory, and what it leaves behind. That
// its trees are those of libxml2, the fuzz target "xml" shows.
#include "conf_plugin/xml.h"
#include "conf_plugin/xml_read.h"
#include "test_support.h"
#include "timing.h"

#include <libxml/parser.h>

#include <malloc.h>

using namespace test;

namespace {

read_outcome outcome_of(const std::string &document)
{
    const read_result read = read_plain({document.data(), document.size()});
    EXPECT_EQ(read.root != nullptr, read.outcome == read_outcome::made) << document;
    xmlFreeNode(read.root);
    return read.outcome;
}

std::string nested(int depth)
{
    return repeat("<a>", depth) + repeat("</a>", depth);
}

std::string attributes(int count)
{
    std::string text = "<a";
    for (int i = 0; i < count; ++i) {
        text += " a" + std::to_string(i) + "=''";
    }
    return text + "/>";
}

// Each another one.
std::string many_names(std::size_t length)
{
    std::string text;
    for (int i = 0; text.size() < length; ++i) {
        text += "<name-of-" + std::to_string(i) + "/>";
    }
    return text;
}

using XmlRead = Fixture;

TEST_F(XmlRead, TakesPlainDocumentsAndLeavesAllOthers)
{
    const std::string taken[] = {
        "<a/>",
        " <a></a >\n",
        "<a xmlns='u' xmlns:p='v'><p:b p:k='1' k=\"2\"/></a>",
        "<a xmlns='u'><b xmlns=''/></a>",
        "<a>x &amp; &#x20ac; \xe2\x82\xac ]] >\r\n<b/>\t</a>",
        "<a k='&lt;&#10;\t\xc3\xa9'/>",
        nested(256),
        attributes(100),
        "<" + repeat("n", 50000) + "/>",
        "<a>" + repeat("<name>x</name><p>" + repeat("x", 100) + "</p>", 100000) + "</a>",
    };
    for (const std::string &document : taken) {
        EXPECT_EQ(outcome_of(document), read_outcome::made) << document.substr(0, 60);
    }
    const std::string left[] = {
        "",
        "x",
        "<a>",
        "<a/>x",
        "<a/",
        "</a>",
        "<a></b>",
        "<a></ab>",
        "<a><!--c--></a>",
        "<a><?p?></a>",
        "<a><![CDATA[x]]></a>",
        "<?xml version='1.0'?><a/>",
        "<!DOCTYPE a><a/>",
        "<p:a/>",
        "<a p:k=''/>",
        "<a xml:id='x'/>",
        "<a k='' k=''/>",
        "<a xmlns:p='u' xmlns:q='u' p:k='' q:k=''/>",
        "<a xmlns='' xmlns=''/>",
        "<a xmlns:p=''/>",
        "<a xmlns:xml='http://www.w3.org/XML/1998/namespace'/>",
        "<a xmlns='&amp;'/>",
        "<a k='<'/>",
        "<a k=''l=''/>",
        "<a>&e;</a>",
        "<a>&amp</a>",
        "<a>&#0;</a>",
        "<a>&#x110000;</a>",
        "<a>]]></a>",
        "<a>\xc0\x80</a>",
        "<a>\xed\xa0\x80</a>",
        "<a>\x01</a>",
        std::string("<a>\0</a>", 8),
        "<\xc3\xa9/>",
        "<a\xc3\x97/>",
        nested(257),
        attributes(101),
        "<" + repeat("n", 50001) + "/>",
        "<a>" + repeat("x", 7000001) + "</a>",
        "<a k='" + repeat("x", 7000001) + "'/>",
        "<a k='\t" + repeat("x", 7000001) + "'/>",
        "<a>" + many_names(12000000) + "</a>",
    };
    for (const std::string &document : left) {
        EXPECT_EQ(outcome_of(document), read_outcome::left) << document.substr(0, 60);
    }
}

TEST_F(XmlRead, LeavesNodesToLibxml2ThatTheHostWantsToHearOf)
{
    xmlRegisterNodeDefault([](xmlNode *) {});
    EXPECT_EQ(outcome_of("<a/>"), read_outcome::left);
    xmlRegisterNodeDefault(nullptr);
    xmlDeregisterNodeDefault([](xmlNode *) {});
    EXPECT_EQ(outcome_of("<a/>"), read_outcome::left);
    xmlDeregisterNodeDefault(nullptr);
    EXPECT_EQ(outcome_of("<a/>"), read_outcome::made);
}

// The memory of libxml2, which ends after `left` blocks, and is searched when it is freed.
int left;
int blocks;
bool was_secret_freed;

void *taken(std::size_t size)
{
    void *made = left-- > 0 ? std::malloc(size) : nullptr;
    blocks += made == nullptr ? 0 : 1;
    return made;
}

void given_back(void *block)
{
    const std::string_view bytes(static_cast<char *>(block), malloc_usable_size(block));
    was_secret_freed = was_secret_freed || bytes.find("secret") != std::string_view::npos;
    blocks -= block == nullptr ? 0 : 1;
    std::free(block);
}

TEST_F(XmlRead, LeavesNothingBehindWithoutMemoryAndInWhatItLeaves)
{
    const std::string whole = "<p:a xmlns:p='u' k='secret' l='secret\t'><b>\xc3\xa9secret &amp;</b>"
                              "&amp;secret<c/></p:a>";
    const std::string unfinished = "<a k='secret' l='secret&lt;'><b>secret</b>secret<!--c--></a>";
    const std::string late = "<a k='\tsecret<'/>";
    xmlMemSetup(given_back, taken, std::realloc, strdup);
    int enough = 0;
    for (left = 0; outcome_of(whole) == read_outcome::no_memory; left = ++enough) {
        EXPECT_EQ(blocks, 0) << enough;
        EXPECT_FALSE(was_secret_freed) << enough;
    }
    EXPECT_EQ(enough, 21);    // each node, name, namespace and text
    was_secret_freed = false; // of the whole tree, which its owner wipes or does not
    for (const std::string &document : {unfinished, late}) {
        left = 1000;
        const std::string before = document;
        EXPECT_EQ(outcome_of(document), read_outcome::left);
        EXPECT_EQ(document, before);
        EXPECT_FALSE(was_secret_freed) << document;
        EXPECT_EQ(blocks, 0);
    }
    xmlMemSetup(std::free, std::malloc, std::realloc, strdup);
}

} // namespace
