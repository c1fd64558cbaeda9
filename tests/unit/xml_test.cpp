// The guarded calls of libxml2: texts that are wiped and names that are not, and silence about what
// a message holds. What a body becomes, the fuzz target "stream" compares with libxml2 alone.
#include "conf_plugin/xml.h"
#include "test_support.h"
#include "timing.h"

#include <libxml/parser.h>

#include <cstring>

using namespace test;

namespace {

parse_result parsed(std::string text)
{
    return parse_body({text.data(), text.size()});
}

using Xml = Fixture;

TEST_F(Xml, NothingOfAMalformedBodyIsPrintedAndTheHostKeepsItsHandler)
{
    int reports = 0;
    const auto handler = [](void *count, xmlErrorPtr) { ++*static_cast<int *>(count); };
    testing::internal::CaptureStderr();
    for (const xmlStructuredErrorFunc host : {xmlStructuredErrorFunc{handler}, {}}) {
        xmlSetStructuredErrorFunc(&reports, host);
        for (const char *body :
             {"", "<a><b>hunter2</a>", "hunter2", "<a>\xff\xfe</a>", "<a/><b/>", "<a>&hunter2;</a>",
              "<?xml version='1.0' encoding='latin1'?><a>\xe4</a>", "<a k='1' k='2'/>"}) {
            const parse_result result = parsed(body);
            EXPECT_EQ(result.root, nullptr) << body;
            EXPECT_FALSE(result.failed_copy) << body;
        }
        // Usable, though libxml2 has something to say: an undeclared prefix.
        const node_ptr odd(parsed("<hunter2:a/>").root);
        EXPECT_EQ(list_of(odd.get()), "<hunter2:a/>");
        EXPECT_NE(add_raw(odd.get(), "n", "&hunter2"), nullptr);
        EXPECT_EQ(xmlStructuredError, host);
        EXPECT_EQ(xmlStructuredErrorContext, &reports);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(reports, 0);
    EXPECT_EQ(xmlGetLastError(), nullptr) << "kept for anyone to read";
    xmlSetStructuredErrorFunc(nullptr, nullptr);
}

TEST_F(Xml, WipesTextsAndNothingElse)
{
    clean_xml_content(nullptr);
    wipe_and_free(nullptr);
    const node_ptr fragment(xmlNewDocFragment(nullptr)); // of a plugin's
    xmlAddChildList(fragment.get(), parse("<a>secret</a>"));
    clean_xml_content(fragment.get());
    EXPECT_EQ(list_of(fragment->children), "<a></a>");
    const node_ptr root(
        parse("<a><b>secret</b>x<c k=\"k\">x</c><![CDATA[k]]>y<!--k--><?k k?>z</a>"));
    clean_xml_content(root.get());
    EXPECT_EQ(print(root.get()), "<a><b></b><c k=\"k\"></c><![CDATA[k]]><!--k--><?k k?></a>");
    // The whole text in its place; siblings that follow but not those before, nor the parent's.
    const node_ptr list(parse("<l><a>first</a><b>second</b>third</l>"));
    clean_xml_content(list->children->next);
    EXPECT_EQ(print(list.get()), "<l><a>first</a><b></b></l>");
    EXPECT_EQ(std::memcmp(list->last->content, "\0\0\0\0\0\0", 6), 0);

    // Short texts that a dictionary shares with names.
    xmlDoc *shared = xmlReadMemory("<ab>ab</ab>", 11, nullptr, nullptr, 0);
    clean_xml_content(xmlDocGetRootElement(shared));
    EXPECT_STREQ(reinterpret_cast<const char *>(xmlDocGetRootElement(shared)->name), "ab");
    xmlFreeDoc(shared);
}

TEST_F(Xml, WipesWithoutRecursion)
{
    node_ptr deep(new_element("n"));
    xmlNode *bottom = deep.get();
    for (int level = 0; level < 200000; ++level) {
        bottom = xmlAddChild(bottom, xmlNewNode(nullptr, BAD_CAST "n"));
    }
    xmlNode *text = xmlAddChild(bottom, xmlNewText(BAD_CAST "secret"));
    clean_xml_content(deep.get());
    EXPECT_EQ(text->content[0], 0);
    wipe_and_free(deep.release());

    // An entity that leads back to itself through its declaration.
    xmlDoc *doc =
        xmlReadDoc(BAD_CAST "<!DOCTYPE a [<!ENTITY e 'x'>]><a>&e;secret</a>", nullptr, nullptr, 0);
    xmlNode *reference = xmlDocGetRootElement(doc)->children;
    xmlNode *content = std::exchange(reference->children->children, reference);
    clean_xml_content(xmlDocGetRootElement(doc));
    EXPECT_EQ(reference->next->content[0], 0);
    reference->children->children = content;
    xmlFreeDoc(doc);
}

TEST_F(Xml, NoBodyTakesMuchLongerThanItsSize)
{
    const auto attributes = [](int count) {
        std::string text;
        for (int i = 0; i < count; ++i) {
            text += " a" + std::to_string(i) + "='>'";
        }
        return text;
    };
    const std::string defaults = "<!DOCTYPE a [<!ATTLIST a b CDATA 'x'>]>";
    const std::string quotes = repeat("<a>", 2) + repeat("'\"", 5000) + "</a></a>";
    const std::pair<std::string, bool> rows[] = {
        {"<a" + attributes(2000) + "/>", true},
        {"<a" + attributes(2001) + "/>", false},
        {"<a><!-- <b" + attributes(2001) + "--><![CDATA[<b" + attributes(2001) + "]]></a>", true},
        {"<a><?b <c" + attributes(2001) + "?></a>", true},
        {"<a><![CDATA[<b]]><b" + attributes(2001) + "/></a>", false},
        {"<a><b/>" + repeat("x", 20000) + "<b" + attributes(2001) + "></b></a>", false},
        {quotes, true},
        {"<a><![CDATA[" + repeat("''", 5000) + "]]></a>", true},
        {"<a " + repeat("'", 12000), false},
        {defaults + "<a/>", false},
    };
    for (const auto &[body, is_parsed] : rows) {
        EXPECT_EQ(node_ptr(parsed(body).root) != nullptr, is_parsed) << body.substr(0, 60);
    }
}

} // namespace
