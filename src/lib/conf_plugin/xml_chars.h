// The characters of XML 1.0 and how UTF-8 and references stand for them.
// What reads and what writes documents must agree on this, so it has one place.
//
// Relies on nothing. All texts end with a zero byte, which no character contains.
#ifndef CONF_PLUGIN_XML_CHARS_H
#define CONF_PLUGIN_XML_CHARS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace xml {

using byte = unsigned char;

[[nodiscard]] constexpr bool is_character(std::uint32_t code)
{
    return (code >= 0x20 && code <= 0xd7ff) || code == '\t' || code == '\n' || code == '\r' ||
           (code >= 0xe000 && code <= 0xfffd) || (code >= 0x10000 && code <= 0x10ffff);
}

// What an ASCII byte is, and where it stands for itself. Bytes beyond ASCII are nothing of these.
enum kind : byte {
    starts_name = 1,
    continues_name = 2,
    is_blank = 4,
    is_plain_text = 8, // to a reader: neither "]", which may begin "]]>", nor a new line
    is_plain_value = 16,
    prints_raw = 32,
    prints_as_text = 64,
    prints_as_value = 128,
};

constexpr std::array<byte, 256> make_kinds()
{
    std::array<byte, 256> kinds{};
    for (unsigned c = 0; c < 0x80; ++c) {
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
        const bool blank = c == ' ' || c == '\t' || c == '\n' || c == '\r';
        const bool plain = c >= ' ' && c != '<' && c != '&';
        kinds[c] = static_cast<byte>(
            (letter ? starts_name : 0) |
            (letter || (c >= '0' && c <= '9') || c == '-' || c == '.' ? continues_name : 0) |
            (blank ? is_blank : 0) | //
            ((plain && c != ']') || c == '\t' ? is_plain_text : 0) |
            (plain ? is_plain_value : 0) | //
            (c >= ' ' || blank ? prints_raw : 0) |
            ((plain && c != '>') || c == '\t' || c == '\n' ? prints_as_text : 0) |
            (plain && c != '>' && c != '"' ? prints_as_value : 0));
    }
    return kinds;
}

inline constexpr std::array<byte, 256> kinds = make_kinds();

inline bool is(byte c, kind wanted)
{
    return (kinds[c] & wanted) != 0;
}

struct character {
    std::uint32_t code;
    std::size_t length; // in bytes; 0 for what is no character
};

// The character that begins at `at`. Only its shortest encoding counts.
[[nodiscard]] character decode(const byte *at);

// Writes a character, at most four bytes, and returns the end of it.
byte *encode(std::uint32_t code, byte *to);

// The character that a reference stands for, given what is between "&" and ";": one of the five
// predefined entities, or a number. 0 for any other.
[[nodiscard]] std::uint32_t resolve(std::string_view reference);

// The same for the whole reference that begins at `at`, with its length.
[[nodiscard]] character reference(const byte *at);

// The length of a text that is a name as a whole, where colons count as letters; 0 if it is none.
[[nodiscard]] std::size_t name_length(const byte *text);

} // namespace xml

#endif
