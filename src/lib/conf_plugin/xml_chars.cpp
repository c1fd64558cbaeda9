// See xml_chars.h for the contract.
#include "xml_chars.h"

#include <algorithm>
#include <iterator>

namespace {

struct range {
    std::uint32_t first, last;
};

// Beyond ASCII: what a name may begin with, and what may follow only.
constexpr range name_starts[] = {{0xc0, 0xd6},     {0xd8, 0xf6},     {0xf8, 0x2ff},
                                 {0x370, 0x37d},   {0x37f, 0x1fff},  {0x200c, 0x200d},
                                 {0x2070, 0x218f}, {0x2c00, 0x2fef}, {0x3001, 0xd7ff},
                                 {0xf900, 0xfdcf}, {0xfdf0, 0xfffd}, {0x10000, 0xeffff}};
constexpr range name_parts[] = {{0xb7, 0xb7}, {0x300, 0x36f}, {0x203f, 0x2040}};

template <std::size_t count>
bool is_in(const range (&ranges)[count], std::uint32_t code)
{
    return std::any_of(std::begin(ranges), std::end(ranges), [code](const range &each) {
        return code >= each.first && code <= each.last;
    });
}

bool may_start(std::uint32_t code)
{
    return code < 0x80 ? code == ':' || xml::is(static_cast<xml::byte>(code), xml::starts_name)
                       : is_in(name_starts, code);
}

bool may_continue(std::uint32_t code)
{
    return code < 0x80 ? code == ':' || xml::is(static_cast<xml::byte>(code), xml::continues_name)
                       : is_in(name_starts, code) || is_in(name_parts, code);
}

constexpr std::size_t most_digits = 8; // no character needs more

// Digits beyond the base give a number that is no character.
std::uint32_t number(std::string_view digits, std::uint32_t base)
{
    std::uint32_t value = 0;
    if (digits.size() > most_digits) {
        return 0;
    }
    for (const char each : digits) {
        const auto letter = static_cast<std::uint32_t>(each | 0x20) - 'a';
        const auto decimal = static_cast<std::uint32_t>(each) - '0';
        const std::uint32_t digit = decimal < 10 ? decimal : letter < 6 ? letter + 10 : base;
        if (digit >= base) {
            return 0;
        }
        value = value * base + digit;
    }
    return xml::is_character(value) ? value : 0;
}

struct entity {
    std::string_view name;
    std::uint32_t code;
};
constexpr entity entities[] = {
    {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};

} // namespace

xml::character xml::decode(const byte *at)
{
    constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const byte first = at[0];
    if (first < 0x80) {
        return {first, is_character(first) ? std::size_t{1} : 0};
    }
    const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    std::uint32_t code = first & (0x7fU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((at[i] & 0xc0) != 0x80) { // such as the zero byte at the end
            return {0, 0};
        }
        code = code << 6 | (at[i] & 0x3f);
    }
    const bool is_sound = first >= 0xc2 && first <= 0xf4 && code >= smallest[length];
    return {code, is_sound && is_character(code) ? length : 0};
}

xml::byte *xml::encode(std::uint32_t code, byte *to)
{
    if (code < 0x80) {
        *to++ = static_cast<byte>(code);
        return to;
    }
    const int more = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    *to++ = static_cast<byte>((0xff00 >> (more + 1)) | (code >> (6 * more)));
    for (int left = more - 1; left >= 0; --left) {
        *to++ = static_cast<byte>(0x80 | ((code >> (6 * left)) & 0x3f));
    }
    return to;
}

std::uint32_t xml::resolve(std::string_view reference)
{
    if (reference.size() > 1 && reference[0] == '#') {
        const bool is_hex = reference[1] == 'x';
        reference.remove_prefix(is_hex ? 2 : 1);
        return number(reference, is_hex ? 16 : 10);
    }
    for (const entity &each : entities) {
        if (each.name == reference) {
            return each.code;
        }
    }
    return 0;
}

xml::character xml::reference(const byte *at)
{
    const byte *end = at + 1;
    while (is(*end, continues_name) || *end == '#') {
        ++end;
    }
    const std::string_view inside(reinterpret_cast<const char *>(at + 1),
                                  static_cast<std::size_t>(end - at - 1));
    const std::uint32_t code = *end == ';' ? resolve(inside) : 0;
    return {code, code == 0 ? 0 : inside.size() + 2};
}

std::size_t xml::name_length(const byte *text)
{
    const byte *end = text;
    if (is(*end, starts_name)) { // nearly all names are ASCII
        do {
            ++end;
        } while (is(*end, continues_name));
    }
    while (*end != 0) {
        const character next = decode(end);
        const bool may_stand = end == text ? may_start(next.code) : may_continue(next.code);
        if (next.length == 0 || !may_stand) {
            return 0;
        }
        end += next.length;
    }
    return static_cast<std::size_t>(end - text);
}
