// The guarded calls of libxml2: whole results or none, texts that are wiped and names that are not,
// and silence about what a message holds.
#include "conf_plugin/xml.h"
#include "test_support.h"
#include "xml_memory.h"

#include <cstring>

using namespace test;

namespace {

using maker = std::function<xmlNode *(xmlNode *)>;

parse_result parsed(std::string text)
{
    return parse_body({text.data(), text.size()});
}

// Whether no node of a list, attributes included, belongs to a document.
bool is_free(const xmlNode *node)
{
    return node == nullptr || (node->doc == nullptr && is_free(node->next) &&
                               (node->type == XML_ENTITY_REF_NODE || is_free(node->children)) &&
                               (node->type != XML_ELEMENT_NODE ||
                                is_free(reinterpret_cast<const xmlNode *>(node->properties))));
}

class Xml : public Fixture {};

TEST_F(Xml, AParsedBodyBelongsToNoDocument)
{
    const std::pair<const char *, const char *> cases[] = {
        {"<ab>ab</ab>", "<ab>ab</ab>"},
        {"<a>\n <b> c </b> <d/>\n</a>", "<a><b> c </b><d/></a>"},
        {"\xef\xbb\xbf<?xml version='1.0' encoding='utf-16'?><!--x--><a>1</a><!--y-->", "<a>1</a>"},
        {"<a xmlns='u:1' xmlns:p='u:2'><p:b p:k='v'>t</p:b></a>",
         "<a xmlns=\"u:1\" xmlns:p=\"u:2\"><p:b p:k=\"v\">t</p:b></a>"},
        {"<a xml:lang='en' xml:id='i'><b xml:space='preserve'> </b></a>",
         "<a xml:lang=\"en\" xml:id=\"i\"><b xml:space=\"preserve\"> </b></a>"},
        {"<a><![CDATA[<&]]>&lt;&#65;<!-- c --><?p i?></a>",
         "<a><![CDATA[<&]]>&lt;A<!-- c --><?p i?></a>"},
        {"<!DOCTYPE a [<!ENTITY e 'text'><!ATTLIST a k ID #IMPLIED>]><a k='v'>&e;</a>",
         "<a k=\"v\">&e;</a>"},
    };
    for (const auto &[body, expected] : cases) {
        const node_ptr root(parsed(body).root);
        EXPECT_EQ(list_of(root.get()), expected);
        EXPECT_TRUE(is_free(root.get())) << body;
    }
}

TEST_F(Xml, NothingOfAMalformedBodyIsPrintedAndTheHostKeepsItsHandler)
{
    int reports = 0;
    const auto handler = [](void *count, xmlErrorPtr) { ++*static_cast<int *>(count); };
    xmlSetStructuredErrorFunc(&reports, handler);
    testing::internal::CaptureStderr();
    for (const char *body :
         {"", " ", "<a><b>hunter2</a>", "<a>hunter2", "hunter2", "<a>\xff\xfe</a>", "<a/><b/>",
          "<a>&hunter2;</a>", "<?xml version='1.0' encoding='latin1'?><a>\xe4</a>",
          "<a k='1' k='2'/>"}) {
        const parse_result result = parsed(body);
        EXPECT_EQ(result.root, nullptr) << body;
        EXPECT_FALSE(result.failed_copy) << body;
    }
    // Usable, though libxml2 has something to say: an undeclared prefix.
    const node_ptr odd(parsed("<hunter2:a/>").root);
    EXPECT_EQ(print(odd.get()), "<hunter2:a/>");
    const node_ptr parent(new_element("p"));
    EXPECT_NE(add_raw(parent.get(), "n", "&hunter2"), nullptr);

    EXPECT_EQ(xmlStructuredErrorContext, &reports);
    EXPECT_EQ(xmlStructuredError, static_cast<xmlStructuredErrorFunc>(handler));
    EXPECT_EQ(reports, 0);
    xmlSetStructuredErrorFunc(nullptr, nullptr);
    EXPECT_EQ(parsed("<a>hunter2").root, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(xmlStructuredError, nullptr);
    const xmlError *last = xmlGetLastError();
    EXPECT_TRUE(last == nullptr || last->message == nullptr) << "kept for anyone to read";
}

TEST_F(Xml, WipesTextsAndNothingElse)
{
    const std::pair<const char *, const char *> cases[] = {
        {"<a><b>secret</b>tail<c k=\"keep\"><d>x</d></c><e/></a>",
         "<a><b></b><c k=\"keep\"><d></d></c><e/></a>"},
        {"<a>x<![CDATA[keep]]>y<!--keep--><?keep it?>z</a>",
         "<a><![CDATA[keep]]><!--keep--><?keep it?></a>"},
    };
    clean_xml_content(nullptr);
    for (const auto &[body, expected] : cases) {
        const node_ptr root(parse(body));
        clean_xml_content(root.get());
        EXPECT_EQ(print(root.get()), expected);
    }

    // The whole text in its place; siblings that follow but not those before, nor the parent's.
    const node_ptr list(parse("<l><a>first</a><b>second</b>third</l>"));
    xmlNode *third = list->last;
    clean_xml_content(list->children->next);
    EXPECT_EQ(print(list.get()), "<l><a>first</a><b></b></l>");
    EXPECT_EQ(std::memcmp(third->content, "\0\0\0\0\0\0", 6), 0);

    // Nothing that is freed holds a text: the document of a body, and a tree that is let go.
    const int found = xml_heap.secrets;
    xmlFreeNode(parse("<a>secret</a>"));
    EXPECT_EQ(xml_heap.secrets, found + 2) << "the check itself";
    for (const char *body : {"<a>secret</a>", "<a xml:lang='en'>secret<b>secret</b></a>"}) {
        wiped_node(parsed(body).root).reset();
    }
    EXPECT_EQ(xml_heap.secrets, found + 2);

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
    xmlDoc *doc = xmlNewDoc(BAD_CAST "1.0");
    xmlNode *root = xmlNewDocNode(doc, nullptr, BAD_CAST "a", nullptr);
    xmlDocSetRootElement(doc, root);
    xmlCreateIntSubset(doc, BAD_CAST "a", nullptr, nullptr);
    xmlEntity *entity = xmlAddDocEntity(doc, BAD_CAST "e", XML_INTERNAL_GENERAL_ENTITY, nullptr,
                                        nullptr, BAD_CAST "&e;");
    xmlNode *reference = xmlAddChild(root, xmlNewReference(doc, BAD_CAST "e"));
    text = xmlAddChild(root, xmlNewDocText(doc, BAD_CAST "secret"));
    ASSERT_EQ(reference->children, reinterpret_cast<xmlNode *>(entity));
    entity->children = entity->last = reference;
    clean_xml_content(root);
    EXPECT_EQ(text->content[0], 0);
    entity->children = entity->last = nullptr;
    xmlFreeDoc(doc);
    const parse_result circle =
        parsed("<!DOCTYPE a [<!ENTITY x '&y;'><!ENTITY y '&x;'>]><a k='1'>s<b>&x;</b></a>");
    wipe_and_free(circle.root);
}

TEST_F(Xml, AddsChildren)
{
    const struct {
        xmlNode *(*add)(xmlNode *parent, const char *name, const char *content);
        const char *content, *expected;
    } cases[] = {
        {[](xmlNode *p, const char *name, const char *) { return add_element(p, name); }, "",
         "<n/>"},
        {add_text, nullptr, "<n/>"},
        {add_text, "", "<n/>"},
        {add_text, "&", "<n>&amp;</n>"},
        {add_text, "<a>&#65;", "<n>&lt;a&gt;&amp;#65;</n>"},
        {add_raw, nullptr, "<n/>"},
        {add_raw, "", "<n/>"},
        {add_raw, "&", "<n/>"},
        {add_raw, "&#65;b&amp;&lt;", "<n>Ab&amp;&lt;</n>"},
    };
    for (const auto &c : cases) {
        const node_ptr parent(new_element("p"));
        EXPECT_EQ(c.add(parent.get(), "n", c.content), parent->children);
        EXPECT_EQ(list_of(parent->children), c.expected);
    }
    for (const long long number : {0LL, -42LL, 4294967295LL}) {
        const node_ptr parent(new_element("p"));
        EXPECT_EQ(add_number(parent.get(), "n", number), parent->children);
        EXPECT_EQ(list_of(parent->children), "<n>" + std::to_string(number) + "</n>");
    }
}

TEST_F(Xml, TakesChildrenOutOfATreeThatGoes)
{
    const std::pair<const char *, const char *> cases[] = {
        {"<r><d><a>1</a>text<b/></d></r>", "<a>1</a>text<b/>"},
        {"<r><d><a xmlns='u:1'/></d><e xmlns='u:2'/></r>", "<a xmlns=\"u:1\"/>"},
        {"<r xmlns:p='u:1'><d><p:a/>text<b p:k='1'/></d></r>",
         "<p:a xmlns:p=\"u:1\"/>text<b xmlns:p=\"u:1\" p:k=\"1\"/>"},
        {"<r><d xmlns='u:1'><a><b/></a></d></r>", "<a xmlns=\"u:1\"><b/></a>"},
    };
    for (const auto &[text, expected] : cases) {
        node_ptr root(parse(text));
        const node_list list(take_children(root->children));
        root.reset();
        EXPECT_EQ(list_of(list.get()), expected);
        for (const xmlNode *node = list.get(); node != nullptr; node = node->next) {
            EXPECT_EQ(node->parent, nullptr);
        }
    }
}

// The text of a node; nothing when it cannot be made.
std::optional<std::string> text_of(xmlNode *node)
{
    const node_text printed(node);
    return printed.result() != node_text::outcome::made
               ? std::nullopt
               : std::optional(std::string(printed.text().data(), printed.text().size()));
}

TEST_F(Xml, GivesTheWholeResultOrNoneWhenMemoryRunsOut)
{
    const std::string body = "<r xmlns='u:1' xmlns:p='u:2' xml:lang='en'><p:a k='1' p:l='2'>one "
                             "&amp; two</p:a><![CDATA[c]]><!--d--><b><c>three</c>four</b></r>";
    const std::string plain = "<r k='v'><a>one &amp; two</a><b><c>three</c></b></r>";
    const std::string long_text = "<r>" + std::string(9000, 'd') + "</r>";
    const node_ptr tree(parse(body));
    const node_ptr large(parse(long_text));

    // A maker of one node, whose parent must then hold that node or be as before.
    const auto adding = [](const maker &make) {
        return [make]() -> std::optional<std::string> {
            const node_ptr parent(new_element("p"));
            if (!parent) {
                return {};
            }
            const bool made = make(parent.get()) != nullptr;
            xml_heap.work_again();
            const std::string printed = print(parent.get());
            EXPECT_TRUE(made || printed == "<p/>") << printed;
            return made ? std::optional(printed) : std::nullopt;
        };
    };
    const auto parsing = [](const std::string &text) {
        return [text]() -> std::optional<std::string> {
            const node_ptr root(parsed(text).root);
            xml_heap.work_again();
            return root ? std::optional(print(root.get())) : std::nullopt;
        };
    };
    const auto add_copies = [&](xmlNode *parent) -> xmlNode * {
        node_list copy(copy_list(tree->children));
        return copy && add_children(parent, copy.get()) ? copy.release() : nullptr;
    };
    const auto take_copies = [&](xmlNode *parent) -> xmlNode * {
        const node_ptr root(parsed("<r xmlns:p='u:2'><p:a p:k='1'>one</p:a><b/></r>").root);
        node_list taken(root ? take_children(root.get()) : nullptr);
        return taken && add_children(parent, taken.get()) ? taken.release() : nullptr;
    };
    const struct {
        const char *name;
        leaks allowed;
        std::function<std::optional<std::string>()> scenario;
    } cases[] = {
        {"parse, copied", leaks::of_libxml2, parsing(body)},
        {"parse, detached", leaks::none, parsing(plain)},
        {"parse, long", leaks::of_libxml2, parsing(long_text)},
        {"element", leaks::none, adding([](xmlNode *p) { return add_element(p, "n"); })},
        {"text", leaks::none, adding([](xmlNode *p) { return add_text(p, "n", "a<b&c"); })},
        {"number", leaks::none, adding([](xmlNode *p) { return add_number(p, "n", 12345); })},
        {"raw", leaks::of_libxml2,
         adding([](xmlNode *p) { return add_raw(p, "n", "a&amp;b&#65;c"); })},
        {"children", leaks::of_libxml2, adding(add_copies)},
        {"children taken", leaks::of_libxml2, adding(take_copies)},
        {"print", leaks::none, [&] { return text_of(large.get()); }},
    };
    for (const auto &c : cases) {
        expect_whole_or_nothing(c.name, c.allowed, c.scenario);
    }
}

} // namespace
