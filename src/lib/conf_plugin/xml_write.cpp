// See xml_write.h for the contract. One walk over the tree, without recursion: its depth is the
// choice of whoever made it.
#include "xml_write.h"

#include "conf_buffer_internal.h"
#include "support/bounded.h"
#include "xml_chars.h"

#include <libxml/parserInternals.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

// ---- places ------------------------------------------------------------------------------------

constexpr std::size_t longest_text = INT_MAX;
constexpr std::size_t growth_step = 1024;

// Memory that a text is written into, and how to have more of it.
struct place {
    char *bytes;
    std::size_t used;
    std::size_t room;
    bool (*grow)(place *self, std::size_t room);
    void *owner;
};

bool grow_buffer(place *self, std::size_t room)
{
    auto **buffer = static_cast<conf_buffer_t **>(self->owner);
    if (room > longest_text - static_cast<std::size_t>((*buffer)->used)) {
        return false;
    }
    conf_buffer_t *const grown = conf_buffer_expand(*buffer, static_cast<int>(room));
    if (grown == nullptr) {
        return false;
    }
    *buffer = grown;
    self->bytes = grown->buf + grown->used;
    self->room = static_cast<std::size_t>(grown->total - grown->used) - 1;
    return true;
}

bool grow_block(place *self, std::size_t room)
{
    auto *moved = static_cast<char *>(std::malloc(room));
    if (moved == nullptr) {
        return false;
    }
    if (self->bytes != nullptr) {
        std::memcpy(moved, self->bytes, self->used);
        support::wipe(self->bytes, self->used);
        std::free(self->bytes);
    }
    self->bytes = moved;
    self->room = room;
    return true;
}

// ---- the walk ----------------------------------------------------------------------------------

using xml::byte;

enum class style { raw, text, value, value_in_utf8, space };

xml::kind plain_in(style how)
{
    return how == style::raw    ? xml::prints_raw
           : how == style::text ? xml::prints_as_text
                                : xml::prints_as_value;
}

// What stands for a byte that cannot stand for itself; null if it can.
const char *escape(const byte *at, style how, char quote)
{
    const bool is_value = how == style::value || how == style::value_in_utf8;
    switch (*at) {
    case '&':
        // Names of namespaces keep some of their references when they are read.
        return how == style::space && xml::reference(at).length > 0 ? "&" : "&amp;";
    case '<':
        return "&lt;";
    case '>':
        return how == style::space ? ">" : "&gt;";
    case '"':
        return is_value || quote == '"' ? "&quot;" : "\"";
    case '\r':
        return how == style::space ? "\r" : "&#13;";
    case '\n':
        return is_value ? "&#10;" : "\n";
    case '\t':
        return is_value ? "&#9;" : "\t";
    default:
        return " "; // control characters
    }
}

class printer {
public:
    printer(place *to, odd_bytes odd) : to_(to), odd_(odd) {}

    printed print(const xmlNode *top);

private:
    // All return whether to go on.
    bool tree(const xmlNode *top);
    bool begin(const xmlNode *node);
    bool end(const xmlNode *node);
    bool element(const xmlNode *node);
    bool attribute(const xmlAttr *attribute);
    bool declaration(const xmlNs *space);
    bool qualified_name(const xmlNs *space, const xmlChar *name);
    bool name(const xmlChar *name);
    bool reference(const xmlNode *node);
    bool comment(const xmlNode *node);
    bool instruction(const xmlNode *node);
    bool section(const xmlNode *node);
    bool content(const xmlChar *text, style how, char quote = '"');
    bool content(const byte *from, const byte *to, style how, char quote);
    bool number(std::uint32_t code);
    bool put(std::string_view text);
    bool make_room(std::size_t more);
    bool refuse() { return fail(printed::not_printable); }
    bool fail(printed why)
    {
        result_ = why;
        return false;
    }

    place *to_;
    odd_bytes odd_;
    printed result_ = printed::whole;
};

bool printer::make_room(std::size_t more)
{
    if (more <= to_->room - to_->used) {
        return true;
    }
    // By half at least, or a long text would be moved too often.
    const std::size_t needed = to_->used + more;
    const std::size_t wanted = needed + std::max(needed / 2, growth_step);
    const bool fits = more <= longest_text && needed <= longest_text;
    return (fits && to_->grow(to_, std::min(wanted, longest_text))) || fail(printed::no_room);
}

bool printer::put(std::string_view text)
{
    if (text.empty()) { // for which there need not be a place
        return true;
    }
    if (!make_room(text.size())) {
        return false;
    }
    std::memcpy(to_->bytes + to_->used, text.data(), text.size());
    to_->used += text.size();
    return true;
}

bool printer::number(std::uint32_t code)
{
    int shift = 20;
    while (shift > 0 && code >> shift == 0) {
        shift -= 4;
    }
    bool goes_on = put("&#x");
    for (; goes_on && shift >= 0; shift -= 4) {
        goes_on = put({&"0123456789ABCDEF"[(code >> shift) & 0xf], 1});
    }
    return goes_on && put(";");
}

bool printer::content(const xmlChar *text, style how, char quote)
{
    return text == nullptr ||
           content(text, text + std::strlen(reinterpret_cast<const char *>(text)), how, quote);
}

bool printer::content(const byte *from, const byte *to, style how, char quote)
{
    const xml::kind plain = plain_in(how);
    while (from != to) {
        const byte *const start = from;
        while (from != to && xml::is(*from, plain)) {
            ++from;
        }
        if (!put({reinterpret_cast<const char *>(start), static_cast<std::size_t>(from - start)})) {
            return false;
        }
        if (from == to) {
            return true;
        }
        if (*from < 0x80) {
            if (!put(escape(from, how, quote))) {
                return false;
            }
            ++from;
            continue;
        }
        xml::character next = xml::decode(from);
        if (next.length == 0) {
            if (odd_ == odd_bytes::refused) {
                return refuse();
            }
            next = {0xfffd, 1};
        }
        from += next.length;
        if (how == style::value) {
            if (!number(next.code)) {
                return false;
            }
        } else {
            if (!make_room(4)) {
                return false;
            }
            auto *at = reinterpret_cast<byte *>(to_->bytes + to_->used);
            to_->used += static_cast<std::size_t>(xml::encode(next.code, at) - at);
        }
    }
    return true;
}

bool printer::name(const xmlChar *name)
{
    const std::size_t length = name == nullptr ? 0 : xml::name_length(name);
    return length > 0 ? put({reinterpret_cast<const char *>(name), length}) : refuse();
}

bool printer::qualified_name(const xmlNs *space, const xmlChar *local)
{
    const bool has_prefix = space != nullptr && space->prefix != nullptr;
    return (!has_prefix || (name(space->prefix) && put(":"))) && name(local);
}

// Names of namespaces are not escaped beyond need, and have other quotes where they hold these.
bool printer::declaration(const xmlNs *space)
{
    const auto *const uri = reinterpret_cast<const char *>(space->href);
    if (space->type != XML_LOCAL_NAMESPACE || uri == nullptr ||
        xmlStrEqual(space->prefix, reinterpret_cast<const xmlChar *>("xml")) == 1) {
        return true;
    }
    const bool has_other = std::strchr(uri, '"') != nullptr && std::strchr(uri, '\'') == nullptr;
    const char quote = has_other ? '\'' : '"';
    return put(" xmlns") && (space->prefix == nullptr || (put(":") && name(space->prefix))) &&
           put("=") && put({&quote, 1}) && content(space->href, style::space, quote) &&
           put({&quote, 1});
}

bool printer::attribute(const xmlAttr *attribute)
{
    const bool in_utf8 = attribute->doc != nullptr && attribute->doc->encoding != nullptr;
    bool goes_on = put(" ") && qualified_name(attribute->ns, attribute->name) && put("=\"");
    for (const xmlNode *each = attribute->children; goes_on && each != nullptr; each = each->next) {
        if (each->type == XML_TEXT_NODE) {
            goes_on = content(each->content, in_utf8 ? style::value_in_utf8 : style::value);
        } else if (each->type == XML_ENTITY_REF_NODE) {
            goes_on = reference(each);
        }
    }
    return goes_on && put("\"");
}

bool printer::element(const xmlNode *node)
{
    bool goes_on = put("<") && qualified_name(node->ns, node->name);
    for (const xmlNs *each = node->nsDef; goes_on && each != nullptr; each = each->next) {
        goes_on = declaration(each);
    }
    for (const xmlAttr *each = node->properties; goes_on && each != nullptr; each = each->next) {
        goes_on = attribute(each);
    }
    return goes_on && put(node->children == nullptr ? "/>" : ">");
}

bool printer::reference(const xmlNode *node)
{
    const std::string_view known =
        node->name == nullptr ? "" : reinterpret_cast<const char *>(node->name);
    return xml::resolve(known) != 0 ? put("&") && put(known) && put(";") : refuse();
}

bool printer::comment(const xmlNode *node)
{
    if (node->content == nullptr) {
        return true;
    }
    const std::string_view text = reinterpret_cast<const char *>(node->content);
    if (text.find("--") != std::string_view::npos || (!text.empty() && text.back() == '-')) {
        return refuse();
    }
    return put("<!--") && content(node->content, style::raw) && put("-->");
}

bool printer::instruction(const xmlNode *node)
{
    const auto *const text = reinterpret_cast<const char *>(node->content);
    if ((text != nullptr && std::strstr(text, "?>") != nullptr) ||
        xmlStrcasecmp(node->name, reinterpret_cast<const xmlChar *>("xml")) == 0) {
        return refuse();
    }
    return put("<?") && name(node->name) && (text == nullptr || put(" ")) &&
           content(node->content, style::raw) && put("?>");
}

// One that holds its own end becomes two.
bool printer::section(const xmlNode *node)
{
    const char *from =
        node->content == nullptr ? "" : reinterpret_cast<const char *>(node->content);
    const char *to = nullptr;
    do {
        const char *const split = std::strstr(from, "]]>");
        to = split == nullptr ? from + std::strlen(from) : split + 2;
        if (!put("<![CDATA[") ||
            !content(reinterpret_cast<const byte *>(from), reinterpret_cast<const byte *>(to),
                     style::raw, '"') ||
            !put("]]>")) {
            return false;
        }
        from = to;
    } while (*to != '\0');
    return true;
}

bool printer::begin(const xmlNode *node)
{
    switch (node->type) {
    case XML_ELEMENT_NODE:
        return element(node);
    case XML_TEXT_NODE:
        return content(node->content, node->name == xmlStringTextNoenc ? style::raw : style::text);
    case XML_CDATA_SECTION_NODE:
        return section(node);
    case XML_COMMENT_NODE:
        return comment(node);
    case XML_PI_NODE:
        return instruction(node);
    case XML_ENTITY_REF_NODE:
        return reference(node);
    case XML_DOCUMENT_FRAG_NODE:
    case XML_XINCLUDE_START:
    case XML_XINCLUDE_END:
        return true;
    default:
        return refuse();
    }
}

bool printer::end(const xmlNode *node)
{
    return node->type != XML_ELEMENT_NODE ||
           (put("</") && qualified_name(node->ns, node->name) && put(">"));
}

bool has_own_children(const xmlNode *node)
{
    return node->children != nullptr &&
           (node->type == XML_ELEMENT_NODE || node->type == XML_DOCUMENT_FRAG_NODE);
}

bool printer::tree(const xmlNode *top)
{
    const xmlNode *node = top;
    for (;;) {
        if (!begin(node)) {
            return false;
        }
        if (has_own_children(node)) {
            if (node->children->parent != node) { // there would be no way back
                return refuse();
            }
            node = node->children;
            continue;
        }
        while (node != top && node->next == nullptr) {
            node = node->parent;
            if (!end(node)) {
                return false;
            }
        }
        if (node == top) {
            return true;
        }
        if (node->next->parent != node->parent) {
            return refuse();
        }
        node = node->next;
    }
}

printed printer::print(const xmlNode *top)
{
    if (tree(top) && to_->used == 0) {
        result_ = printed::not_printable;
    }
    if (result_ != printed::whole && to_->bytes != nullptr) {
        support::wipe(to_->bytes, to_->used);
    }
    return result_;
}

} // namespace

text_block::~text_block()
{
    if (bytes != nullptr) {
        support::wipe(bytes, size);
        std::free(bytes);
    }
}

printed print_node(conf_buffer_t **buffer, const xmlNode *node, odd_bytes odd)
{
    conf_buffer_t *const before = *buffer;
    place to = {before->buf + before->used, 0,
                static_cast<std::size_t>(before->total - before->used) - 1, grow_buffer, buffer};
    const printed result = printer(&to, odd).print(node);
    if (result == printed::whole) {
        (*buffer)->used += static_cast<int>(to.used); // behind which everything is zero
    }
    return result;
}

printed print_node(text_block *block, const xmlNode *node, odd_bytes odd)
{
    place to = {nullptr, 0, 0, grow_block, nullptr};
    const printed result = printer(&to, odd).print(node);
    if (result == printed::whole) {
        block->bytes = to.bytes;
        block->size = to.used;
    } else {
        std::free(to.bytes);
    }
    return result;
}
