// Values in trees, keys in paths and refusals with a text: comfort above the plain calls, which
// know nothing of it. Relies on conf_plugin/xml.h for everything that makes or wipes nodes.
#include "conf_values.h"

#include "conf_api.h"
#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/xml.h"
#include "support/bounded.h"

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace {

constexpr int there = 1, absent = 0, not_one = -1;

// ---- texts -------------------------------------------------------------------------------------

bool is_piece(const xmlNode *node)
{
    return node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE;
}

bool is_remark(const xmlNode *node)
{
    return node->type == XML_COMMENT_NODE || node->type == XML_PI_NODE;
}

const char *content_of(const xmlNode *piece)
{
    return piece->content == nullptr ? "" : reinterpret_cast<const char *>(piece->content);
}

void give_up(xmlNode *piece)
{
    xmlUnlinkNode(piece);
    clean_everything(piece);
    xmlFreeNode(piece);
}

// Puts one new piece in the place of all of them: a plain text, for what two CDATA sections hold
// need not fit into one.
xmlNode *join(xmlNode *first, std::size_t length)
{
    const libxml_watch watch;
    xmlNode *whole = xmlNewText(nullptr);
    auto *content = static_cast<xmlChar *>(xmlMallocAtomic(length + 1));
    if (whole == nullptr || content == nullptr) {
        xmlFreeNode(whole);
        xmlFree(content);
        return nullptr;
    }
    whole->content = content;
    for (xmlNode *piece = first, *next = nullptr; piece != nullptr; piece = next) {
        next = piece->next;
        if (is_piece(piece)) {
            const std::string_view text = content_of(piece);
            std::memcpy(content, text.data(), text.size());
            content += text.size();
            if (piece == first) {
                (void)xmlReplaceNode(first, whole);
            }
            give_up(piece);
        }
    }
    *content = '\0';
    return whole;
}

// The text of an element or attribute whose children are the given ones.
int text_of_children(xmlNode *children, const char **text)
{
    xmlNode *first = nullptr;
    std::size_t pieces = 0, length = 0;
    for (xmlNode *child = children; child != nullptr; child = child->next) {
        if (is_piece(child)) {
            first = first == nullptr ? child : first;
            length += std::strlen(content_of(child));
            ++pieces;
        } else if (!is_remark(child)) {
            return not_one;
        }
    }
    if (pieces > 1) {
        first = join(first, length);
        if (first == nullptr) {
            return not_one;
        }
    }
    *text = first == nullptr ? "" : content_of(first);
    return there;
}

// The text of a value that no white space belongs to.
int read_word(xmlNode *node, std::string_view *word)
{
    const char *text = nullptr;
    const int found = econf_node_text(node, &text);
    if (found == there) {
        constexpr const char *blanks = " \t\r\n";
        text += std::strspn(text, blanks);
        std::size_t length = std::strlen(text);
        while (length > 0 && std::strchr(blanks, text[length - 1]) != nullptr) {
            --length;
        }
        *word = {text, length};
    }
    return found;
}

// ---- numbers -----------------------------------------------------------------------------------

bool read_digits(std::string_view digits, unsigned long long *number)
{
    if (digits.empty() || (digits.size() > 1 && digits[0] == '0')) {
        return false;
    }
    unsigned long long value = 0;
    for (const char digit : digits) {
        if (digit < '0' || digit > '9' || __builtin_mul_overflow(value, 10U, &value) ||
            __builtin_add_overflow(value, static_cast<unsigned>(digit - '0'), &value)) {
            return false;
        }
    }
    *number = value;
    return true;
}

int read_number(xmlNode *node, bool *negative, unsigned long long *size)
{
    std::string_view word;
    const int found = read_word(node, &word);
    if (found != there) {
        return found;
    }
    *negative = !word.empty() && word[0] == '-';
    if (*negative) {
        word.remove_prefix(1);
    }
    return read_digits(word, size) ? there : not_one;
}

// ---- keys --------------------------------------------------------------------------------------

// Takes a path to pieces, from the left to the right.
class path_reader {
public:
    explicit path_reader(const char *path) : at_(path) {}

    [[nodiscard]] bool is_at_end() const { return *at_ == '\0'; }
    [[nodiscard]] char front() const { return *at_; }
    void skip() { ++at_; }

    std::string_view until(const char *ends)
    {
        const std::string_view text(at_, std::strcspn(at_, ends));
        at_ += text.size();
        return text;
    }

    // The value of a key, which ends in front of a "," or a "]"; false when it is damaged. Writes
    // as much as there is room for and counts all.
    bool value(char *to, std::size_t room, std::size_t *length)
    {
        const char quote = is_quoted() ? *at_++ : '\0';
        std::size_t count = 0;
        for (; *at_ != '\0' && !is_end_of_value(quote); ++at_) {
            if (quote == '"' && *at_ == '\\' && at_[1] != '\0') {
                ++at_;
            }
            if (count < room) {
                to[count] = *at_;
            }
            ++count;
        }
        *length = count;
        if (quote != '\0' && *at_ == quote) {
            ++at_;
        }
        return *at_ == ',' || *at_ == ']';
    }

private:
    // A bare value may begin with a single quote.
    [[nodiscard]] bool is_quoted() const
    {
        const char *const closing = *at_ == '\'' ? std::strchr(at_ + 1, '\'') : nullptr;
        return *at_ == '"' || (closing != nullptr && (closing[1] == ',' || closing[1] == ']'));
    }

    [[nodiscard]] bool is_end_of_value(char quote) const
    {
        return quote != '\0' ? *at_ == quote : *at_ == ',' || *at_ == ']';
    }

    const char *at_;
};

// Whether a name in a path is the wanted one, which may have been given without its prefix.
bool is_named(std::string_view name, const char *wanted)
{
    const std::size_t length = std::strlen(wanted);
    const std::size_t prefix = name.size() - length;
    return name.size() >= length && (prefix == 0 || name[prefix - 1] == ':') &&
           std::memcmp(name.data() + prefix, wanted, length) == 0;
}

// Reads what stands between "[" and "]"; false when it is damaged. `*found` becomes the length of
// the value, which is written where it fits.
bool read_keys(path_reader &path, const char *key, char *value, std::size_t room,
               std::size_t *found)
{
    for (;;) {
        path.skip(); // "[" or ","
        const std::string_view name = path.until("=],");
        if (path.front() == '=') {
            path.skip();
            const bool wanted = key != nullptr && is_named(name, key);
            std::size_t length = 0;
            if (!path.value(value, wanted ? room : 0, &length)) {
                return false;
            }
            *found = wanted ? length : *found;
        }
        if (path.front() != ',') {
            break;
        }
    }
    const bool whole = path.front() == ']';
    path.skip();
    return whole;
}

} // namespace

// ---- nodes -------------------------------------------------------------------------------------

xmlNode *econf_node_find(xmlNode *list, const char *name)
{
    while (list != nullptr &&
           (name == nullptr ? list->type != XML_ELEMENT_NODE : !is_element(list, name))) {
        list = list->next;
    }
    return list;
}

xmlNode *econf_node_child(xmlNode *parent, const char *name)
{
    return parent == nullptr || parent->type != XML_ELEMENT_NODE
               ? nullptr
               : econf_node_find(parent->children, name);
}

xmlNode *econf_node_next(xmlNode *node, const char *name)
{
    return node == nullptr ? nullptr : econf_node_find(node->next, name);
}

// ---- values ------------------------------------------------------------------------------------

int econf_node_text(xmlNode *node, const char **text)
{
    if (node == nullptr) {
        return absent;
    }
    if (text == nullptr) {
        return not_one;
    }
    if (is_piece(node)) {
        *text = content_of(node);
        return there;
    }
    return node->type == XML_ELEMENT_NODE || node->type == XML_ATTRIBUTE_NODE
               ? text_of_children(node->children, text)
               : not_one;
}

int econf_node_number(xmlNode *node, long long least, long long most, long long *number)
{
    bool negative = false;
    unsigned long long size = 0;
    const int found = read_number(node, &negative, &size);
    if (found != there) {
        return found;
    }
    // Beyond the range it comes out with the other sign.
    const auto value = static_cast<long long>(negative ? 0 - size : size);
    if ((negative ? value > 0 : value < 0) || number == nullptr || value < least || value > most) {
        return not_one;
    }
    *number = value;
    return there;
}

int econf_node_unsigned(xmlNode *node, unsigned long long least, unsigned long long most,
                        unsigned long long *number)
{
    bool negative = false;
    unsigned long long value = 0;
    const int found = read_number(node, &negative, &value);
    if (found != there) {
        return found;
    }
    if ((negative && value != 0) || number == nullptr || value < least || value > most) {
        return not_one;
    }
    *number = value;
    return there;
}

int econf_node_boolean(xmlNode *node, bool_t *value)
{
    static const char *const words[] = {"false", "true", nullptr};
    return econf_node_choice(node, words, value);
}

int econf_node_choice(xmlNode *node, const char *const words[], int *index)
{
    std::string_view word;
    const int found = read_word(node, &word);
    if (found != there) {
        return found;
    }
    for (int i = 0; words != nullptr && index != nullptr && words[i] != nullptr; ++i) {
        if (word == words[i]) {
            *index = i;
            return there;
        }
    }
    return not_one;
}

// ---- trees -------------------------------------------------------------------------------------

xmlNode *econf_node_build(const char *element, ...)
{
    wiped_node node(element == nullptr ? nullptr : new_element(element));
    std::va_list pairs;
    va_start(pairs, element);
    while (node != nullptr) {
        const char *name = va_arg(pairs, const char *);
        if (name == nullptr) {
            break;
        }
        const char *text = va_arg(pairs, const char *);
        if (add_text(node.get(), name, text) == nullptr) {
            node.reset();
        }
    }
    va_end(pairs);
    return node.release();
}

xmlNode *econf_node_add(xmlNode *parent, const char *element, const char *format, ...)
{
    if (parent == nullptr || element == nullptr) {
        return nullptr;
    }
    if (format == nullptr) {
        return add_element(parent, element);
    }
    std::va_list arguments;
    va_start(arguments, format);
    char *text = print_whole(format, arguments);
    va_end(arguments);
    xmlNode *child = text == nullptr ? nullptr : add_text(parent, element, text);
    release_error_text(text);
    return child;
}

void econf_node_free_list(xmlNode *list)
{
    clean_everything(list);
    xmlFreeNodeList(list);
}

// ---- paths -------------------------------------------------------------------------------------

int econf_path_key(const char *path, const char *step, const char *key, char *value, size_t size)
{
    constexpr std::size_t none = SIZE_MAX;
    const bool has_room = value != nullptr && size > 0;
    const std::size_t room = has_room ? size - 1 : 0;
    std::size_t length = none;
    bool whole = true;
    bool is_step = false;
    for (path_reader reader(path == nullptr ? "" : path); whole && !reader.is_at_end();) {
        if (reader.front() == '[') {
            whole = read_keys(reader, is_step ? key : nullptr, value, room, &length);
        } else if (reader.front() == '/') {
            reader.skip();
        } else {
            const std::string_view name = reader.until("/[");
            is_step = step == nullptr || is_named(name, step);
        }
    }
    const bool copied = whole && has_room && length <= room;
    if (has_room) {
        support::wipe(copied ? value + length : value, copied ? size - length : size);
    }
    return copied ? there : whole && length == none ? absent : not_one;
}

// ---- refusals ----------------------------------------------------------------------------------

int econf_plugin_refuse(int err_code, const char *format, ...)
{
    const int code = err_code == 0 ? -1 : err_code;
    char *text = nullptr;
    if (format != nullptr) {
        std::va_list arguments;
        va_start(arguments, format);
        text = print_whole(format, arguments);
        va_end(arguments);
    }
    econf_plugin_error(code, text);
    release_error_text(text);
    return code;
}
