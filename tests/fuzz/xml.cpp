// Documents as any bytes: where the reader of plain documents accepts one, it makes the tree that
// libxml2 makes, down to lines and the place of each namespace.
#include "conf_plugin/xml.h"
#include "conf_plugin/xml_read.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <string>
#include <string_view>
#include <utility>

namespace {

void expect(bool holds, const char *what)
{
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}
#define EXPECT(holds) expect(holds, #holds)

std::string_view view(const xmlChar *text)
{
    return text == nullptr ? "(null)" : reinterpret_cast<const char *>(text);
}

// ---- reading -----------------------------------------------------------------------------------

// As the library has libxml2 read a body, but for a memory that grows.
xmlDoc *read_by_libxml2(const std::string &body)
{
    xmlParserCtxt *parser = xmlNewParserCtxt();
    xmlCtxtUseOptions(parser, XML_PARSE_NOBLANKS | XML_PARSE_NODICT | XML_PARSE_NONET |
                                  XML_PARSE_IGNORE_ENC);
    inputPush(parser, xmlNewStringInputStream(
                          parser, reinterpret_cast<const xmlChar *>(body.c_str())));
    const bool is_sound = xmlParseDocument(parser) == 0;
    xmlDoc *document = parser->myDoc;
    xmlFreeParserCtxt(parser);
    if (!is_sound) {
        xmlFreeDoc(std::exchange(document, nullptr));
    }
    return document;
}

// Where a namespace is declared: how many levels up, and as which of the declarations there.
std::pair<int, int> place(const xmlNode *element, const xmlNs *space)
{
    for (int up = 0; space != nullptr && element != nullptr; ++up, element = element->parent) {
        int index = 0;
        for (const xmlNs *each = element->nsDef; each != nullptr; each = each->next, ++index) {
            if (each == space) {
                return {up, index};
            }
        }
        if (element->parent != nullptr && element->parent->type != XML_ELEMENT_NODE) {
            break;
        }
    }
    return {-1, space == nullptr ? 0 : 1};
}

void expect_same_text(const xmlNode *ours, const xmlNode *theirs)
{
    EXPECT(ours->type == theirs->type && ours->doc == nullptr && ours->extra == 0);
    EXPECT(ours->name == theirs->name); // the constant
    EXPECT(view(ours->content) == view(theirs->content));
    EXPECT(ours->line == theirs->line);
    EXPECT(ours->properties == nullptr && ours->psvi == nullptr && ours->children == nullptr);
}

void expect_same_attributes(const xmlNode *ours, const xmlNode *theirs)
{
    const xmlAttr *one = ours->properties;
    const xmlAttr *previous = nullptr;
    for (const xmlAttr *two = theirs->properties; two != nullptr; two = two->next) {
        EXPECT(one != nullptr && one->prev == previous && one->parent == ours);
        EXPECT(view(one->name) == view(two->name) && one->type == two->type);
        EXPECT(place(ours, one->ns) == place(theirs, two->ns));
        EXPECT(one->doc == nullptr && one->psvi == nullptr && one->atype == two->atype);
        EXPECT(one->children == one->last && two->children == two->last);
        EXPECT(one->children->parent == reinterpret_cast<const xmlNode *>(one));
        expect_same_text(one->children, two->children);
        previous = std::exchange(one, one->next);
    }
    EXPECT(one == nullptr);
}

void expect_same_element(const xmlNode *ours, const xmlNode *theirs)
{
    EXPECT(view(ours->name) == view(theirs->name) && ours->line == theirs->line);
    EXPECT(ours->doc == nullptr && ours->extra == 0 && ours->psvi == nullptr);
    const xmlNs *one = ours->nsDef;
    for (const xmlNs *two = theirs->nsDef; two != nullptr; two = two->next, one = one->next) {
        EXPECT(one != nullptr && one->type == two->type && one->context == nullptr);
        EXPECT(view(one->prefix) == view(two->prefix) && view(one->href) == view(two->href));
    }
    EXPECT(one == nullptr);
    EXPECT(place(ours, ours->ns) == place(theirs, theirs->ns));
    expect_same_attributes(ours, theirs);
}

void expect_same_tree(const xmlNode *ours, const xmlNode *theirs)
{
    const xmlNode *const top = ours;
    EXPECT(ours->parent == nullptr && ours->next == nullptr && ours->prev == nullptr);
    for (;;) {
        EXPECT(ours->type == theirs->type);
        if (ours->type == XML_TEXT_NODE) {
            expect_same_text(ours, theirs);
        } else {
            expect_same_element(ours, theirs);
        }
        EXPECT((ours->children == nullptr) == (theirs->children == nullptr));
        if (ours->children != nullptr) {
            EXPECT(ours->children->parent == ours && ours->children->prev == nullptr);
            ours = ours->children;
            theirs = theirs->children;
            continue;
        }
        while (ours != top && ours->next == nullptr) {
            EXPECT(theirs->next == nullptr && ours->parent->last == ours);
            ours = ours->parent;
            theirs = theirs->parent;
        }
        if (ours == top) {
            return;
        }
        EXPECT(theirs->next != nullptr && ours->next->prev == ours);
        EXPECT(ours->next->parent == ours->parent);
        ours = ours->next;
        theirs = theirs->next;
    }
}

void compare_readers(const std::string &body)
{
    const read_result read = read_plain({body.data(), body.size()});
    EXPECT(read.outcome != read_outcome::no_memory);
    EXPECT((read.outcome == read_outcome::made) == (read.root != nullptr));
    if (read.root != nullptr) {
        xmlDoc *document = read_by_libxml2(body);
        EXPECT(document != nullptr);
        expect_same_tree(read.root, xmlDocGetRootElement(document));
        xmlFreeDoc(document);
        xmlFreeNode(read.root);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    xmlSetStructuredErrorFunc(nullptr, [](void *, xmlErrorPtr) {}); // malformed texts are many
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string body(reinterpret_cast<const char *>(data), size);
    compare_readers(body);
    return 0;
}
