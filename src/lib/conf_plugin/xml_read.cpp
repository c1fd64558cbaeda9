// See xml_read.h for the contract, and xml_reader.h for the reader.
#include "xml_read.h"

#include "xml.h"
#include "xml_reader.h"

#include <libxml/globals.h>
#include <libxml/parserInternals.h>

#include <utility>

namespace {

using xml::view;

constexpr std::size_t longest_name = XML_MAX_NAME_LENGTH;

// The cost of a tag grows with the square of its attributes, that of a name with the namespaces.
constexpr int most_attributes = 100;
constexpr int most_namespaces = 200;

const char *const xml_namespace = reinterpret_cast<const char *>(XML_XML_NAMESPACE);
const char *const xmlns_namespace = "http://www.w3.org/2000/xmlns/";

// Frees what was made of a document, attributes wiped as well.
void discard(xmlNode *root)
{
    for (xmlNode *node = root; node != nullptr;) {
        if (node->type == XML_ELEMENT_NODE) {
            for (const xmlAttr *each = node->properties; each != nullptr; each = each->next) {
                clean_xml_content(each->children);
            }
            if (node->children != nullptr) {
                node = node->children;
                continue;
            }
        }
        while (node != nullptr && node->next == nullptr) {
            node = node->parent;
        }
        node = node == nullptr ? nullptr : node->next;
    }
    wipe_and_free(root);
}

// The declaration of a prefix, or of the default, that is in force in an element.
xmlNs *find_namespace(const xmlNode *element, std::string_view prefix)
{
    for (const xmlNode *node = element; node != nullptr; node = node->parent) {
        for (xmlNs *each = node->nsDef; each != nullptr; each = each->next) {
            if (view(each->prefix) == prefix) {
                return each;
            }
        }
        // An open element has the namespace of its own prefix already.
        if (node != element && view(node->ns == nullptr ? nullptr : node->ns->prefix) == prefix) {
            return node->ns;
        }
    }
    return nullptr;
}

bool is_same_namespace(const xmlNs *one, const xmlNs *other)
{
    return one == other ||
           (one != nullptr && other != nullptr && xmlStrEqual(one->href, other->href) == 1);
}

} // namespace

namespace xml {

reader::reader(std::span<const char> document)
    : at_(reinterpret_cast<const byte *>(document.data())), end_(at_ + document.size()),
      is_large_(document.size() > longest_text)
{
    if (is_large_) {
        recent_names_.fill({});
    }
}

reader::~reader()
{
    discard(root_);
}

// ---- nodes -------------------------------------------------------------------------------------

xmlChar *reader::room_for(std::size_t length)
{
    auto *made = static_cast<xmlChar *>(xmlMallocAtomic(length + 1));
    if (made == nullptr) {
        is_memory_short_ = true;
        return nullptr;
    }
    made[0] = 0;
    return made;
}

xmlChar *reader::copy(std::string_view text)
{
    xmlChar *made = room_for(text.size());
    if (made != nullptr) {
        std::memcpy(made, text.data(), text.size());
        made[text.size()] = 0;
    }
    return made;
}

xmlNode *reader::add_node(xmlElementType type)
{
    auto *node = make<xmlNode>();
    if (node == nullptr) {
        return nullptr;
    }
    node->type = type;
    node->parent = open_;
    if (open_ == nullptr) {
        root_ = node;
        return node;
    }
    node->prev = open_->last;
    (open_->last == nullptr ? open_->children : open_->last->next) = node;
    open_->last = node;
    return node;
}

// ---- tags --------------------------------------------------------------------------------------

bool reader::skip_blanks()
{
    const byte *const from = at_;
    for (; is(*at_, is_blank); ++at_) {
        line_ += *at_ == '\n' ? 1 : 0;
    }
    return at_ != from;
}

bool reader::name(std::string_view *found)
{
    const byte *end = at_;
    if (!is(*end, starts_name)) {
        return false;
    }
    do {
        ++end;
    } while (is(*end, continues_name));
    *found = view(std::exchange(at_, end), end);
    return found->size() <= longest_name && (!is_large_ || count_name(*found));
}

// Counts a name, unless it was there shortly before, as most are.
bool reader::count_name(std::string_view name)
{
    const std::size_t mark = name.size() * 31 + static_cast<byte>(name.front()) * std::size_t{7} +
                             static_cast<byte>(name.back());
    std::string_view &recent = recent_names_[mark % recent_names_.size()];
    if (recent != name) {
        recent = name;
        names_length_ += name.size();
    }
    return names_length_ <= longest_text;
}

// What follows a name in a tag tells whether it has really ended, with a letter beyond ASCII for
// instance.
bool reader::qualified_name(qualified *found)
{
    if (!name(&found->local)) {
        return false;
    }
    if (*at_ != ':') {
        return true;
    }
    ++at_;
    found->prefix = found->local;
    return name(&found->local);
}

bool reader::start_tag()
{
    qualified found;
    if (++depth_ > xmlParserMaxDepth || !qualified_name(&found)) {
        return false;
    }
    xmlNode *element = add_node(XML_ELEMENT_NODE);
    if (element == nullptr || (element->name = copy(found.local)) == nullptr) {
        return false;
    }
    attributes_ = 0;
    last_attribute_ = nullptr;
    last_namespace_ = nullptr;
    bool is_separate = skip_blanks();
    while (*at_ != '>' && *at_ != '/') {
        if (!is_separate || !attribute(element)) {
            return false;
        }
        is_separate = skip_blanks();
    }
    if (!resolve_names(element, found.prefix)) {
        return false;
    }
    open_ = element;
    if (*at_++ == '/') {
        close();
        return *at_++ == '>';
    }
    return true;
}

// The names of a tag have their meaning when all of its declarations are known.
bool reader::resolve_names(xmlNode *element, std::string_view prefix)
{
    element->line = line();
    element->ns = find_namespace(element, prefix);
    if (element->ns == nullptr && !prefix.empty()) {
        return false;
    }
    if (element->ns != nullptr && element->ns->href[0] == 0) { // xmlns="": none
        element->ns = nullptr;
    }
    for (xmlAttr *each = element->properties; each != nullptr; each = each->next) {
        if (!resolve_attribute(element, each)) {
            return false;
        }
    }
    return true;
}

bool reader::resolve_attribute(const xmlNode *element, xmlAttr *attribute)
{
    if (attribute->children->line != 0) {
        attribute->children->line = line();
    }
    if (attribute->psvi != nullptr) {
        const auto *const prefix =
            static_cast<const char *>(std::exchange(attribute->psvi, nullptr));
        const std::size_t length = std::strcspn(prefix, ":");
        attribute->ns = find_namespace(element, {prefix, length});
        if (attribute->ns == nullptr) {
            return false;
        }
    }
    for (const xmlAttr *each = element->properties; each != attribute; each = each->next) {
        if (xmlStrEqual(each->name, attribute->name) == 1 &&
            is_same_namespace(each->ns, attribute->ns)) {
            return false;
        }
    }
    return true;
}

bool reader::attribute(xmlNode *element)
{
    qualified found;
    if (++attributes_ > most_attributes || !qualified_name(&found)) {
        return false;
    }
    (void)skip_blanks();
    if (*at_++ != '=') {
        return false;
    }
    (void)skip_blanks();
    if (found.prefix == "xmlns" || (found.prefix.empty() && found.local == "xmlns")) {
        return declaration(element, found.prefix.empty() ? found.prefix : found.local);
    }
    auto *made = make<xmlAttr>();
    if (made == nullptr) {
        return false;
    }
    made->type = XML_ATTRIBUTE_NODE;
    made->parent = element;
    made->prev = last_attribute_;
    (last_attribute_ == nullptr ? element->properties : last_attribute_->next) = made;
    last_attribute_ = made;
    // Kept there until the declarations are known.
    made->psvi = found.prefix.empty() ? nullptr : const_cast<char *>(found.prefix.data());
    made->name = copy(found.local);
    auto *text = made->name == nullptr ? nullptr : make<xmlNode>();
    if (text == nullptr) {
        return false;
    }
    text->type = XML_TEXT_NODE;
    text->name = xmlStringText;
    text->parent = reinterpret_cast<xmlNode *>(made);
    made->children = text;
    made->last = text;
    bool is_plain = false;
    text->content = value(&is_plain);
    text->line = is_plain ? 1 : 0; // libxml2 numbers no others
    return text->content != nullptr;
}

bool reader::declaration(xmlNode *element, std::string_view prefix)
{
    for (const xmlNs *each = element->nsDef; each != nullptr; each = each->next) {
        if (view(each->prefix) == prefix) {
            return false;
        }
    }
    auto *made = ++namespaces_ > most_namespaces ? nullptr : make<xmlNs>();
    if (made == nullptr) {
        return false;
    }
    made->type = XML_LOCAL_NAMESPACE;
    (last_namespace_ == nullptr ? element->nsDef : last_namespace_->next) = made;
    last_namespace_ = made;
    if (!prefix.empty() && (made->prefix = copy(prefix)) == nullptr) {
        return false;
    }
    const byte *const from = at_;
    bool is_plain = false;
    made->href = value(&is_plain);
    if (made->href == nullptr || view(from, at_).find('&') != std::string_view::npos) {
        return false; // libxml2 keeps some references in the names of namespaces
    }
    const std::string_view space = view(made->href);
    return prefix != "xml" && prefix != "xmlns" && space != xml_namespace &&
           space != xmlns_namespace && (prefix.empty() || !space.empty());
}

bool reader::end_tag()
{
    const auto takes = [this](const xmlChar *text) {
        for (; *text != 0 && *text == *at_; ++text) {
            ++at_;
        }
        return *text == 0;
    };
    const xmlNs *space = open_->ns;
    if (space != nullptr && space->prefix != nullptr && (!takes(space->prefix) || *at_++ != ':')) {
        return false;
    }
    if (!takes(open_->name)) {
        return false;
    }
    (void)skip_blanks();
    close();
    return *at_++ == '>';
}

void reader::close()
{
    for (const xmlNs *each = open_->nsDef; each != nullptr; each = each->next) {
        --namespaces_;
    }
    open_->extra = 0;
    open_ = open_->parent;
    --depth_;
}

// ---- documents ---------------------------------------------------------------------------------

bool reader::whole_document()
{
    (void)skip_blanks();
    if (*at_++ != '<' || !start_tag()) {
        return false;
    }
    while (open_ != nullptr) {
        if (*at_ != '<' && !text()) {
            return false;
        }
        ++at_;
        if (*at_ == '/') {
            ++at_;
            if (!end_tag()) {
                return false;
            }
        } else if (!start_tag()) {
            return false;
        }
    }
    (void)skip_blanks();
    return at_ == end_;
}

read_result reader::read()
{
    if (whole_document()) {
        return {std::exchange(root_, nullptr), read_outcome::made};
    }
    return {nullptr, is_memory_short_ ? read_outcome::no_memory : read_outcome::left};
}

} // namespace xml

read_result read_plain(std::span<const char> document)
{
    // A host that wants to hear of each node hears of it from libxml2.
    if (xmlRegisterNodeDefaultValue != nullptr || xmlDeregisterNodeDefaultValue != nullptr) {
        return {nullptr, read_outcome::left};
    }
    return xml::reader(document).read();
}
