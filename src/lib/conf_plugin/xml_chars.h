// The characters of XML 1.0 and how UTF-8 and references stand for them.
// What reads and what writes documents must agree on this, so it has one place.
//
// Relies on nothing. All texts end with a zero byte, which no character contains.
#ifndef CONF_PLUGIN_XML_CHARS_H
#define CONF_PLUGIN_XML_CHARS_H

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

// Whether the whole text is a name. Colons count as letters.
[[nodiscard]] bool is_name(const byte *text);

} // namespace xml

#endif
