// The parts of the masking that REG_RemarkKeyInfo() is made of (see conf_debug.h for that one):
// conf_mask.cpp has the table of patterns and the search by PCRE2, conf_mask_scan.cpp the other
// one.
#ifndef CONF_MASK_H
#define CONF_MASK_H

#include "conf_debug.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

// The patterns: seven keywords in three forms each.
struct sensitive_item {
    std::string_view keyword;
    std::size_t landmark;                 // its byte that is rarest in other texts
    std::array<const char *, 3> patterns; // element, value pair, quoted name
};

// Each pattern names its first group, with a letter that no other has: that tells it from what a
// program may put in its place, which can get the same address.
#define GROUP_NAME "_conf_mask_"
#define VALUE(LETTER) "(?<" GROUP_NAME LETTER ">.*)"
#define ITEM(KEYWORD, LANDMARK, FIRST, SECOND, THIRD)                                              \
    {                                                                                              \
        KEYWORD, std::string_view(KEYWORD).find(LANDMARK),                                         \
        {                                                                                          \
            ".*" KEYWORD ".*>" VALUE(FIRST) "</.*" KEYWORD,                                        \
                ".*" KEYWORD ".*oldval=" VALUE(SECOND) ",newval=(.*)",                             \
                ".*\".*" KEYWORD ".*\".*: " VALUE(THIRD)                                           \
        }                                                                                          \
    }
inline constexpr std::array<sensitive_item, 7> sensitive_items = {{
    ITEM("password", 'w', "A", "B", "C"),
    ITEM("cipher", 'h', "D", "E", "F"),
    ITEM("psk", 'k', "G", "H", "I"),
    ITEM("authentication-text", 'x', "J", "K", "L"),
    ITEM("key", 'k', "M", "N", "O"),
    ITEM("text-name", 'x', "P", "Q", "R"),
    ITEM("secret", 'c', "S", "T", "U"),
}};
#undef ITEM
#undef VALUE

// Compiles one pattern with the defaults of the PCRE2 build; null when that fails.
[[nodiscard]] pcre2_real_code_8 *REG_CreateOxelKeyRe(const char *pattern);

// Finds every match of `re` in the first `dataLen` bytes of `buf` with PCRE2 and overwrites its
// captured groups with asterisks. Returns 0 when the search ran to the end of the text after at
// least one match, else 1; what was masked before a failure stays masked. Failures of a later
// search are reported on the standard output.
int REG_RemarkInfo(pcre2_real_code_8 *re, char *buf, int dataLen);

// Leaves in `text` what REG_RemarkInfo() leaves with one after the other of some patterns of the
// table, in time linear in the text. Bit n of `patterns` stands for pattern n (0 to 20); `newline`
// is the line end that they were compiled with, one of PCRE2_NEWLINE_*.
void _conf_mask_values(std::span<char> text, std::uint32_t patterns, std::uint32_t newline);

#endif
