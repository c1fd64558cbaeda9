// Documents and trees beside libxml2. Any bytes: where the reader of plain documents accepts them,
// it makes the tree that libxml2 makes, down to lines and the place of each namespace. Any tree,
// parsed or built: what is printed is what xmlNodeDump() prints where that is well-formed; else it
// is refused or, with odd bytes replaced, well-formed nevertheless.
#include "conf_plugin/xml.h"
#include "conf_plugin/xml_read.h"
#include "conf_plugin/xml_write.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
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
    inputPush(parser,
              xmlNewStringInputStream(parser, reinterpret_cast<const xmlChar *>(body.c_str())));
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

// ---- printing ----------------------------------------------------------------------------------

std::string dumped(xmlNode *node)
{
    xmlBuffer *buffer = xmlBufferCreate();
    xmlNodeDump(buffer, nullptr, node, 0, 0);
    std::string text(view(xmlBufferContent(buffer)));
    xmlBufferFree(buffer);
    return text;
}

// Inside of an element, so that any content will do.
bool is_well_formed(const std::string &text)
{
    const std::string whole = "<a>" + text + "</a>";
    xmlDoc *document = xmlReadMemory(whole.data(), static_cast<int>(whole.size()), nullptr, "UTF-8",
                                     XML_PARSE_NONET | XML_PARSE_HUGE);
    xmlFreeDoc(document);
    return document != nullptr;
}

// Both places of a text, which must agree. Data in front of it stay as they are.
printed print(const xmlNode *node, odd_bytes odd, std::string *text)
{
    static conf_buffer_t *buffer = conf_buffer_create(0);
    char before[] = "before";
    conf_buffer_flush(buffer);
    EXPECT(conf_buffer_append(&buffer, before, 6) == 0);
    const printed result = print_node(&buffer, node, odd);
    text_block block;
    EXPECT(print_node(&block, node, odd) == result);
    const std::string_view all(buffer->buf, static_cast<std::size_t>(buffer->used));
    EXPECT(all.substr(0, 6) == before);
    EXPECT(all.substr(6) == std::string_view(block.bytes, block.size));
    static const char zeros[65536] = {}; // what the buffer relies on, also after a failure
    const std::size_t behind = static_cast<std::size_t>(buffer->total) - all.size();
    EXPECT(std::memcmp(all.data() + all.size(), zeros, std::min(behind, sizeof zeros)) == 0);
    EXPECT((result == printed::whole) == (all.size() > 6));
    *text = all.substr(6);
    return result;
}

// Of odd bytes in attributes libxml2 makes the characters with their numbers.
void compare_printers(xmlNode *node, bool is_refused)
{
    const std::string theirs = dumped(node);
    std::string strict;
    std::string lenient;
    const printed result = print(node, odd_bytes::refused, &strict);
    const printed replaced = print(node, odd_bytes::replaced, &lenient);
    EXPECT(result != printed::no_room && replaced != printed::no_room);
    if (is_refused) {
        EXPECT(result == printed::not_printable && replaced == printed::not_printable);
        return;
    }
    const bool has_odd_values = lenient.find("&#xFFFD;") != std::string::npos;
    if (!theirs.empty() && !has_odd_values && is_well_formed(theirs)) {
        EXPECT(result == printed::whole && strict == theirs);
    }
    if (result == printed::whole) {
        EXPECT(replaced == printed::whole && lenient == strict && is_well_formed(strict));
    } else if (replaced == printed::whole) {
        EXPECT(is_well_formed(lenient));
    }
}

class builder {
public:
    builder(const uint8_t *data, size_t size) : in_(data, size) {}

    xmlNode *tree()
    {
        xmlNode *root = xmlNewNode(nullptr, name());
        for (xmlNode *open = root; in_.remaining_bytes() > 0;) {
            open = step(open, root);
        }
        return root;
    }
    // Whether it has a part that no text could stand for, though its text may pass for another
    // tree.
    [[nodiscard]] bool is_refused() const { return is_refused_; }

private:
    const xmlChar *text()
    {
        text_ = in_.ConsumeRandomLengthString(24);
        text_.resize(std::strlen(text_.c_str()));
        return reinterpret_cast<const xmlChar *>(text_.c_str());
    }
    const xmlChar *name()
    {
        static const char *const names[] = {"a",        "b:c", "\xc3\xa9", "a-1.b", "_",  ":",
                                            "\xc3\x97", "1a",  "",         "a b",   "x\n"};
        const size_t chosen = in_.ConsumeIntegralInRange<size_t>(0, std::size(names) - 1);
        is_refused_ = is_refused_ || chosen > 5;
        return reinterpret_cast<const xmlChar *>(names[chosen]);
    }
    xmlNode *step(xmlNode *open, const xmlNode *root)
    {
        xmlNode *added = nullptr;
        switch (in_.ConsumeIntegralInRange(0, 11)) {
        case 0:
        case 1:
            return xmlAddChild(open, xmlNewNode(nullptr, name()));
        case 2:
            return open == root ? open : open->parent;
        case 3:
            added = xmlNewText(text());
            break;
        case 4: // a text of its own, whose bytes are all it is known for
            added = xmlNewText(nullptr);
            added->content = xmlStrdup(text());
            break;
        case 5:
            added = xmlNewCDataBlock(nullptr, text(), static_cast<int>(text_.size()));
            break;
        case 6:
            added = xmlNewComment(text());
            is_refused_ = is_refused_ || text_.find("--") != std::string::npos ||
                          (!text_.empty() && text_.back() == '-');
            break;
        case 7: {
            const bool is_odd = in_.ConsumeIntegralInRange(0, 9) == 9;
            added =
                xmlNewPI(is_odd ? BAD_CAST "Xml" : name(), in_.ConsumeBool() ? text() : nullptr);
            is_refused_ = is_refused_ || is_odd ||
                          std::strstr(added->content == nullptr ? "" : text_.c_str(), "?>");
            break;
        }
        case 8:
            added = xmlNewReference(nullptr, in_.ConsumeBool() ? BAD_CAST "lt" : BAD_CAST "a");
            is_refused_ = is_refused_ || added->name[0] == 'a';
            break;
        case 9: {
            const xmlChar *called = name();
            xmlUnsetProp(open, called);
            xmlNode *value = reinterpret_cast<xmlNode *>(xmlNewProp(open, called, nullptr));
            for (int parts = in_.ConsumeIntegralInRange(0, 2); value != nullptr && parts > 0;
                 --parts) {
                xmlAddChild(value, in_.ConsumeBool() ? xmlNewText(text())
                                                     : xmlNewReference(nullptr, BAD_CAST "#xe9"));
            }
            return open;
        }
        case 10: {
            static const char *const prefixes[] = {nullptr, "p", "q", "xml"};
            xmlNs *space = xmlNewNs(
                open, text(),
                reinterpret_cast<const xmlChar *>(prefixes[in_.ConsumeIntegralInRange(0, 3)]));
            if (in_.ConsumeBool()) {
                xmlSetNs(open, space);
            }
            return open;
        }
        default:
            added = xmlNewDocFragment(nullptr);
            xmlAddChild(added, xmlNewNode(nullptr, name()));
            break;
        }
        if (added != nullptr && xmlAddChild(open, added) == nullptr) {
            xmlFreeNode(added);
        }
        return open;
    }

    FuzzedDataProvider in_;
    std::string text_;
    bool is_refused_ = false;
};

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
    xmlDoc *document =
        xmlReadMemory(body.data(), static_cast<int>(size), nullptr, nullptr, XML_PARSE_NONET);
    if (xmlNode *root = xmlDocGetRootElement(document); root != nullptr) {
        compare_printers(root, false);
    } else {
        builder maker(data, size);
        xmlNode *built = maker.tree();
        compare_printers(built, maker.is_refused());
        xmlFreeNode(built);
    }
    xmlFreeDoc(document);
    return 0;
}
