// Parsing of bodies, see xml.h: by the reader of plain documents or, where that leaves one, by
// libxml2; without a copy of the body or of any text of it that would stay in freed memory.
#include "xml.h"

#include "conf_plugin.h"
#include "support/bounded.h"
#include "xml_read.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

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

// libxml2 compares each attribute of a tag with all others: a tag with many more would take
// minutes.
constexpr std::ptrdiff_t most_attributes = 2000;

// The quoted values of the tag that begins at `tag`; up to `end` there is no further one.
std::ptrdiff_t count_values(const char *tag, const char *end)
{
    std::ptrdiff_t count = 0;
    for (; tag < end && *tag != '>'; ++tag) {
        if (*tag == '"' || *tag == '\'') {
            const void *closing =
                std::memchr(tag + 1, *tag, static_cast<std::size_t>(end - tag - 1));
            if (closing == nullptr) {
                break;
            }
            tag = static_cast<const char *>(closing);
            ++count;
        }
    }
    return count;
}

// What begins with "<" without being a tag, and how it ends: anything may stand in between.
struct bracket {
    std::string_view begin, end;
};
constexpr bracket no_tags[] = {{"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}};

const bracket *no_tag_at(std::string_view text)
{
    const auto begins = [text](const bracket &each) {
        return text.size() >= each.begin.size() &&
               std::memcmp(text.data(), each.begin.data(), each.begin.size()) == 0;
    };
    const bracket *found = std::find_if(std::begin(no_tags), std::end(no_tags), begins);
    return found == std::end(no_tags) ? nullptr : found;
}

// Whether no tag has too many attributes.
bool has_sound_tags(std::string_view rest)
{
    const std::size_t none = std::string_view::npos;
    for (std::size_t at = rest.find('<'); at != none; at = rest.find('<', 1)) {
        rest.remove_prefix(at);
        if (const bracket *no_tag = no_tag_at(rest)) {
            const std::size_t end = rest.find(no_tag->end, no_tag->begin.size());
            rest.remove_prefix(std::min(end, rest.size()));
            continue;
        }
        const std::size_t end = std::min(rest.find('<', 1), rest.size());
        if (count_values(rest.data(), rest.data() + end) > most_attributes) {
            return false;
        }
    }
    return true;
}

// A message has no use for declared attributes, and their defaults would fill the memory.
void refuse_attributes(void *parser, const xmlChar *, const xmlChar *, int, int, const xmlChar *,
                       xmlEnumeration *values)
{
    xmlFreeEnumeration(values);
    xmlStopParser(static_cast<xmlParserCtxt *>(parser));
}

// Lets the parser read the bytes where they stand.
bool open_body(xmlParserCtxt *parser, std::span<char> body)
{
    xmlParserInput *input =
        xmlNewStringInputStream(parser, reinterpret_cast<const xmlChar *>(body.data()));
    return input != nullptr && inputPush(parser, input) >= 0; // which frees it when it fails
}

parse_result parse_by_libxml2(std::span<char> body)
{
    const libxml_watch watch;
    const parser_owner parser(has_sound_tags({body.data(), body.size()}) ? xmlNewParserCtxt()
                                                                         : nullptr);
    if (!parser) {
        return {nullptr, false};
    }
    // Without a dictionary every string belongs to its node, so the tree can leave the document.
    // The encoding is always UTF-8, whatever the body declares: naming it here would make libxml2
    // convert the body into itself, and crash when memory for that runs out.
    (void)xmlCtxtUseOptions(parser.get(), XML_PARSE_NOBLANKS | XML_PARSE_NODICT | XML_PARSE_NONET |
                                              XML_PARSE_IGNORE_ENC);
    parser->sax->characters = take_characters;
    parser->sax->attributeDecl = refuse_attributes;
    if (!open_body(parser.get(), body)) {
        return {nullptr, false};
    }
    const int failed = xmlParseDocument(parser.get());
    support::wipe_stack();
    const document_owner document(parser->myDoc);
    parser->myDoc = nullptr;
    if (!document || failed != 0 || watch.out_of_memory()) {
        return {nullptr, false};
    }
    xmlNode *root = take_root(document.get());
    return {root, root == nullptr};
}

} // namespace

parse_result parse_body(std::span<char> body)
{
    const end_mark mark(body);
    const read_result read = read_plain(body);
    if (read.outcome != read_outcome::left) {
        return {read.root, false};
    }
    for (char &byte : body) { // what XML cannot hold
        byte = is_valid_xmlchr(byte) ? byte : ' ';
    }
    return parse_by_libxml2(body);
}

bool_t is_valid_xmlchr(const char p)
{
    const auto byte = static_cast<unsigned char>(p);
    return byte >= 32 || byte == '\t' || byte == '\n' || byte == '\r';
}
