// Documents as text, see xml.h: printed into memory that has room for the whole from the start, as
// memory that grows can leave its beginning behind, and libxml2 loses it when the growth fails.
#include "xml.h"

#include "support/bounded.h"

namespace {

constexpr std::size_t print_slack = 4608; // libxml2 keeps 4000 bytes free behind what it prints

std::size_t length_of(const xmlChar *text)
{
    return static_cast<std::size_t>(xmlStrlen(text));
}

// At most as long as this is a text when it is escaped.
std::size_t escaped_length(const xmlChar *text)
{
    std::size_t length = 0;
    for (; text != nullptr && *text != 0; ++text) {
        const bool plain = *text >= ' ' && *text < 0x7f && *text != '<' && *text != '>' &&
                           *text != '&' && *text != '"';
        length += plain ? 1 : 6;
    }
    return length;
}

std::size_t namespaces_length(const xmlNode *element)
{
    std::size_t length = 0;
    for (const xmlNs *each = element->nsDef; each != nullptr; each = each->next) {
        length += sizeof " xmlns:=\"\"" + length_of(each->prefix) + escaped_length(each->href);
    }
    return length;
}

std::size_t name_length(const xmlChar *name, const xmlNs *space)
{
    return length_of(name) + (space == nullptr ? 0 : length_of(space->prefix) + 1);
}

std::size_t attributes_length(const xmlNode *element)
{
    std::size_t length = 0;
    for (const xmlAttr *each = element->properties; each != nullptr; each = each->next) {
        length += sizeof " =\"\"" + name_length(each->name, each->ns);
        for (const xmlNode *part = each->children; part != nullptr; part = part->next) {
            length += escaped_length(part->content) + length_of(part->name);
        }
    }
    return length;
}

// What the node alone takes at most. A CDATA section is split wherever it holds its own end.
std::size_t own_length(const xmlNode *node)
{
    switch (node->type) {
    case XML_ELEMENT_NODE:
        return sizeof "<></>" + 2 * name_length(node->name, node->ns) + namespaces_length(node) +
               attributes_length(node);
    case XML_TEXT_NODE:
    case XML_COMMENT_NODE:
    case XML_PI_NODE:
        return sizeof "<!---->" + length_of(node->name) + escaped_length(node->content);
    case XML_CDATA_SECTION_NODE:
        return sizeof "<![CDATA[]]>" * (1 + length_of(node->content) / 3) +
               length_of(node->content);
    default: // references to entities
        return sizeof "&;" + length_of(node->name);
    }
}

std::size_t printed_length(const xmlNode *top)
{
    std::size_t length = print_slack;
    const xmlNode *node = top;
    while (node != nullptr) {
        length += own_length(node);
        if (node->type == XML_ELEMENT_NODE && node->children != nullptr) {
            node = node->children;
            continue;
        }
        while (node != top && node->next == nullptr) {
            node = node->parent;
        }
        node = node == top ? nullptr : node->next;
    }
    return length;
}

} // namespace

// The buffer never grows: a failed growth would leave it in an unknown state. A dump that is whole
// although memory ran out elsewhere (libxml2 sets itself up in its first dump) is given up.
node_text::node_text(xmlNode *node) : buffer_(nullptr), result_(outcome::no_buffer)
{
    const libxml_watch watch;
    buffer_ = xmlBufferCreateSize(printed_length(node));
    if (buffer_ == nullptr) {
        return;
    }
    xmlBufferSetAllocationScheme(buffer_, XML_BUFFER_ALLOC_DOUBLEIT);
    const int written = xmlNodeDump(buffer_, nullptr, node, 0, 0);
    support::wipe_stack();
    if (written <= 0 || watch.out_of_memory()) {
        result_ = outcome::not_dumped;
        return;
    }
    result_ = xmlBufferContent(buffer_) == nullptr ? outcome::no_content : outcome::made;
}

node_text::~node_text()
{
    if (buffer_ != nullptr) {
        support::wipe(buffer_->content, buffer_->use);
        xmlBufferFree(buffer_);
    }
}

std::span<const char> node_text::text() const
{
    return {reinterpret_cast<const char *>(xmlBufferContent(buffer_)),
            static_cast<std::size_t>(xmlBufferLength(buffer_))};
}
