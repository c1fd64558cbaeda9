// Parsing of bodies, see xml.h: without a copy of the body or of any text of it that would stay in
// freed memory.
#include "xml.h"

#include "support/bounded.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>

#include <cstring>

namespace {

void free_document(xmlDoc *document)
{
    clean_xml_content(xmlDocGetRootElement(document));
    xmlFreeDoc(document);
}

using document_owner = std::unique_ptr<xmlDoc, support::released_by<free_document>>;

// Whether nodes of the document point to what dies with it: shared strings, declared entities and
// attribute types, or the namespace of the prefix "xml".
bool owns_what_nodes_use(const xmlDoc *document)
{
    return document->dict != nullptr || document->intSubset != nullptr ||
           document->extSubset != nullptr || document->oldNs != nullptr;
}

// Takes the root element out of its document: detached where nobody can see the difference, since
// a copy of a large tree costs more than parsing it.
xmlNode *take_root(xmlDoc *document)
{
    xmlNode *root = xmlDocGetRootElement(document);
    if (root == nullptr || owns_what_nodes_use(document)) {
        return copy_node(root);
    }
    xmlUnlinkNode(root);
    xmlSetTreeDoc(root, nullptr);
    return root;
}

// Puts a zero byte behind the body, as libxml2 wants it, for its lifetime.
class end_mark {
public:
    explicit end_mark(std::span<char> body) : end_(body.data() + body.size()), covered_(*end_)
    {
        *end_ = '\0';
    }
    ~end_mark() { *end_ = covered_; }
    end_mark(const end_mark &) = delete;
    end_mark &operator=(const end_mark &) = delete;

private:
    char *end_;
    char covered_;
};

using parser_owner = std::unique_ptr<xmlParserCtxt, support::released_by<xmlFreeParserCtxt>>;

// A text that goes on and no longer fits would be reallocated by libxml2, which can leave its
// beginning behind. So it gets the room that libxml2 would give it here, and before.
void make_room(xmlParserCtxt *parser, int count)
{
    xmlNode *text = parser->node == nullptr ? nullptr : parser->node->last;
    const bool goes_on = text != nullptr && text->type == XML_TEXT_NODE && parser->nodemem > 0 &&
                         text->content != reinterpret_cast<xmlChar *>(&text->properties);
    if (!goes_on || parser->nodelen + count < parser->nodemem) {
        return;
    }
    const auto used = static_cast<std::size_t>(parser->nodelen);
    const int room = 2 * (parser->nodemem + count);
    auto *moved = static_cast<xmlChar *>(xmlMallocAtomic(static_cast<std::size_t>(room)));
    if (moved != nullptr) { // else libxml2 tries, and reports it
        std::memcpy(moved, text->content, used + 1);
        support::wipe(text->content, used);
        xmlFree(text->content);
        text->content = moved;
        parser->nodemem = room;
    }
}

void take_characters(void *parser, const xmlChar *bytes, int count)
{
    make_room(static_cast<xmlParserCtxt *>(parser), count);
    xmlSAX2Characters(parser, bytes, count);
}

// Lets the parser read the bytes where they stand.
bool open_body(xmlParserCtxt *parser, std::span<char> body)
{
    xmlParserInput *input =
        xmlNewStringInputStream(parser, reinterpret_cast<const xmlChar *>(body.data()));
    return input != nullptr && inputPush(parser, input) >= 0; // which frees it when it fails
}

} // namespace

parse_result parse_body(std::span<char> body)
{
    const libxml_watch watch;
    const end_mark mark(body);
    const parser_owner parser(xmlNewParserCtxt());
    if (!parser) {
        return {nullptr, false};
    }
    // Without a dictionary every string belongs to its node, so the tree can leave the document.
    // The encoding is always UTF-8, whatever the body declares: naming it here would make libxml2
    // convert the body into itself, and crash when memory for that runs out.
    (void)xmlCtxtUseOptions(parser.get(), XML_PARSE_NOBLANKS | XML_PARSE_NODICT | XML_PARSE_NONET |
                                              XML_PARSE_IGNORE_ENC);
    parser->sax->characters = take_characters;
    if (!open_body(parser.get(), body)) {
        return {nullptr, false};
    }
    (void)xmlParseDocument(parser.get());
    support::wipe_stack();
    const document_owner document(parser->myDoc);
    parser->myDoc = nullptr;
    if (!document || parser->wellFormed == 0 || watch.out_of_memory()) {
        return {nullptr, false};
    }
    xmlNode *root = take_root(document.get());
    return {root, root == nullptr};
}
