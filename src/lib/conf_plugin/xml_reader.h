// The reader behind read_plain(), see xml_read.h: one pass from the first byte to the last, without
// recursion. Its state is in the tree itself, whose open element is the place for the next node.
// Tags are read in xml_read.cpp; texts, with the values of attributes, in xml_read_text.cpp.
#ifndef CONF_PLUGIN_XML_READER_H
#define CONF_PLUGIN_XML_READER_H

#include "xml_chars.h"
#include "xml_read.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string_view>

namespace xml {

inline std::string_view view(const byte *from, const byte *to)
{
    return {reinterpret_cast<const char *>(from), static_cast<std::size_t>(to - from)};
}

inline std::string_view view(const xmlChar *text)
{
    return text == nullptr ? std::string_view() : reinterpret_cast<const char *>(text);
}

// libxml2 accepts no longer text, and no more bytes of names that differ.
inline constexpr std::size_t longest_text = 7'000'000;

struct qualified {
    std::string_view prefix; // empty for none
    std::string_view local;
};

class reader {
public:
    explicit reader(std::span<const char> document);
    ~reader();
    reader(const reader &) = delete;
    reader &operator=(const reader &) = delete;

    read_result read();

private:
    // Most of these return false when the document is left or memory is short.
    bool whole_document();
    bool start_tag();
    bool end_tag();
    bool name(std::string_view *found);
    bool count_name(std::string_view name);
    bool qualified_name(qualified *found);
    bool attribute(xmlNode *element);
    bool declaration(xmlNode *element, std::string_view prefix);
    bool resolve_names(xmlNode *element, std::string_view prefix);
    bool resolve_attribute(const xmlNode *element, xmlAttr *attribute);
    xmlChar *value(bool *is_plain);
    bool decode_value(const byte *closing, byte **to);
    bool reference(byte **to);
    bool text();
    bool plain_chunks();
    bool cut_chunks();
    bool take_chunk(const byte *from, const byte *to, bool is_cut);
    bool begin_text(const byte *from);
    [[nodiscard]] bool is_dropped(const byte *from, const byte *to) const;
    bool skip_blanks();
    void close();
    xmlNode *add_node(xmlElementType type);
    template <typename type>
    type *make();
    xmlChar *room_for(std::size_t length);
    xmlChar *copy(std::string_view text);
    [[nodiscard]] unsigned short line() const
    {
        return static_cast<unsigned short>(std::min(line_, std::size_t{USHRT_MAX}));
    }

    const byte *at_;
    const byte *end_; // where the zero byte is
    const bool is_large_;
    std::size_t line_ = 1;
    bool is_memory_short_ = false;

    // Of a large document: names seen lately, and the length of all others.
    std::array<std::string_view, 64> recent_names_;
    std::size_t names_length_ = 0;

    xmlNode *root_ = nullptr;
    xmlNode *open_ = nullptr;
    unsigned depth_ = 0;
    int namespaces_ = 0; // declared in all open elements

    // Of the tag that is being read.
    int attributes_ = 0;
    xmlAttr *last_attribute_ = nullptr;
    xmlNs *last_namespace_ = nullptr;

    // Of the text that is being read: its node, if it has one yet, and the tag behind it.
    xmlNode *text_ = nullptr;
    byte *text_end_ = nullptr;
    const byte *tag_ = nullptr;
};

template <typename type>
type *reader::make()
{
    void *made = xmlMalloc(sizeof(type));
    if (made == nullptr) {
        is_memory_short_ = true;
        return nullptr;
    }
    return static_cast<type *>(std::memset(made, 0, sizeof(type)));
}

} // namespace xml

#endif
