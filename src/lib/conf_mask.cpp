// Masking of sensitive values: the exported table of compiled patterns, and the search that applies
// them.
//
// PCRE2 does not run the library's own patterns: on a line full of keywords or quotes its
// backtracking takes minutes, or gives up and leaves the value readable. conf_mask_scan.cpp finds
// the same matches. PCRE2 runs only a pattern that a program has put into the table itself.
#include "conf_mask.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include "support/owners.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <utility>

constexpr std::size_t pattern_count = 21;

pcre2_real_code_8 *g_oxelKeyInfoRe[pattern_count];

namespace {

// ---- table --------------------------------------------------------------------------------------

std::atomic_ref<pcre2_code_8 *> table_entry(std::size_t pattern)
{
    return std::atomic_ref<pcre2_code_8 *>(g_oxelKeyInfoRe[pattern]);
}

// Whether an entry holds the library's own pattern. The name in it tells, not its address: a
// program that frees the library's pattern may get the same address for its own.
bool is_own(const pcre2_code_8 *entry, const char *name)
{
    return pcre2_substring_number_from_name_8(entry, reinterpret_cast<PCRE2_SPTR8>(name)) > 0;
}

// Compiles all patterns, whatever the table holds: that is the program's, and may be freed. Entry 0
// says that the table is complete, so it is stored last. Returns whether it is: not without the
// memory, and not while another thread is building, for which nobody waits.
bool build_table()
{
    static std::atomic_flag building;
    if (building.test_and_set()) {
        return false;
    }
    if (table_entry(0).load() == nullptr) {
        std::array<pcre2_code_8 *, pattern_count> fresh{};
        auto next = fresh.rbegin();
        for (auto item = sensitive_items.rbegin(); item != sensitive_items.rend(); ++item) {
            for (std::size_t form = item->patterns.size(); form-- > 0;) {
                *next++ = REG_CreateOxelKeyRe(item->patterns[form]);
            }
        }
        for (std::size_t pattern = pattern_count; pattern-- > 0;) {
            if (fresh[0] != nullptr) {
                table_entry(pattern).store(fresh[pattern]);
            } else {
                pcre2_code_free_8(fresh[pattern]);
            }
        }
    }
    building.clear();
    return table_entry(0).load() != nullptr;
}

// ---- global match with PCRE2 --------------------------------------------------------------------

using match_owner =
    std::unique_ptr<pcre2_match_data_8, support::released_by<pcre2_match_data_free_8>>;

// What the steps from one match to the next depend on.
struct match_text {
    std::span<char> bytes;
    bool utf = false;
    bool crlf_ends_line = false;

    match_text(const pcre2_code_8 *re, std::span<char> text) : bytes(text)
    {
        std::uint32_t options = 0;
        std::uint32_t newline = 0;
        (void)pcre2_pattern_info_8(re, PCRE2_INFO_ALLOPTIONS, &options);
        (void)pcre2_pattern_info_8(re, PCRE2_INFO_NEWLINE, &newline);
        utf = (options & PCRE2_UTF) != 0;
        crlf_ends_line = newline == PCRE2_NEWLINE_CRLF || newline == PCRE2_NEWLINE_ANY ||
                         newline == PCRE2_NEWLINE_ANYCRLF;
    }

    // The first position from `position` on at which a character begins.
    [[nodiscard]] std::size_t character_begin(std::size_t position) const
    {
        while (utf && position < bytes.size() && (bytes[position] & 0xc0) == 0x80) {
            ++position;
        }
        return position;
    }

    // The position behind the character, or the line end of two bytes, at `position`.
    [[nodiscard]] std::size_t next(std::size_t position) const
    {
        if (crlf_ends_line && position + 1 < bytes.size() && bytes[position] == '\r' &&
            bytes[position + 1] == '\n') {
            return position + 2;
        }
        return character_begin(position + 1);
    }
};

void mask_groups(std::span<char> text, const PCRE2_SIZE *offsets, std::size_t count)
{
    for (std::size_t group = 1; group < count; ++group) {
        const PCRE2_SIZE begin = offsets[2 * group];
        const PCRE2_SIZE end = offsets[2 * group + 1];
        if (begin < end) { // both are PCRE2_UNSET for a group that took no part
            std::fill(text.begin() + static_cast<std::ptrdiff_t>(begin),
                      text.begin() + static_cast<std::ptrdiff_t>(end), '*');
        }
    }
}

void report_reversed_match(const char *text, PCRE2_SIZE start, PCRE2_SIZE end)
{
    std::printf("\\K was used in an assertion to set the match start after its end.\n"
                "From end to start the match was: %.*s\n",
                static_cast<int>(start - end), text + end);
}

} // namespace

pcre2_code_8 *REG_CreateOxelKeyRe(const char *pattern)
{
    int error = 0;
    PCRE2_SIZE error_offset = 0;
    return pcre2_compile_8(reinterpret_cast<PCRE2_SPTR8>(pattern), PCRE2_ZERO_TERMINATED, 0, &error,
                           &error_offset, nullptr);
}

int REG_RemarkInfo(pcre2_code_8 *re, char *buf, int dataLen)
{
    const match_owner data(pcre2_match_data_create_from_pattern_8(re, nullptr));
    if (!data) {
        return 1;
    }
    const match_text text(re, std::span(buf, static_cast<std::size_t>(dataLen)));
    const std::size_t length = text.bytes.size();
    const PCRE2_SIZE *offsets = pcre2_get_ovector_pointer_8(data.get());
    std::size_t from = 0;
    std::uint32_t options = 0;
    for (bool first = true;; first = false) {
        const int count = pcre2_match_8(re, reinterpret_cast<PCRE2_SPTR8>(buf), length, from,
                                        options, data.get(), nullptr);
        PCRE2_SIZE start = offsets[0];
        PCRE2_SIZE end = offsets[1];
        if (count == PCRE2_ERROR_NOMATCH && !first) {
            if (options == 0) {
                return 0;
            }
            start = from; // there was an empty match and nothing else: step over one character
            end = text.next(from);
        } else if (count < 0) {
            if (!first) {
                std::printf("Matching error %d\n", count);
            }
            return 1;
        } else if (start > end) {
            report_reversed_match(buf, start, end);
            if (!first) {
                std::printf("Run abandoned\n");
            }
            return 1;
        } else {
            mask_groups(text.bytes, offsets, static_cast<std::size_t>(count));
        }

        from = end;
        options = 0;
        if (start == end) {
            if (end == length) {
                return 0;
            }
            // At the place of an empty match only one that is not empty is of interest.
            options = PCRE2_NOTEMPTY_ATSTART | PCRE2_ANCHORED;
        } else if (const PCRE2_SIZE start_character = pcre2_get_startchar_8(data.get());
                   start_character >= end) { // \K in a look-behind: the next search must advance
            if (start_character >= length) {
                return 0;
            }
            from = text.character_begin(start_character + 1);
        }
    }
}

void REG_RemarkKeyInfo(char *buf, int dataLen)
{
    const bool is_built = table_entry(0).load() != nullptr || build_table();
    if (buf == nullptr || dataLen <= 0) {
        return;
    }
    std::uint32_t newline = PCRE2_NEWLINE_LF;
    (void)pcre2_config_8(PCRE2_CONFIG_NEWLINE, &newline);
    const std::span text(buf, static_cast<std::size_t>(dataLen));
    // Those not applied yet: a replaced pattern sees what the ones before it have left. Without a
    // table all are the library's own, and their values are masked all the same.
    std::uint32_t own = 0;
    char name[] = GROUP_NAME "A";
    for (std::size_t pattern = 0; pattern < pattern_count; ++pattern, ++name[sizeof name - 2]) {
        pcre2_code_8 *const entry = table_entry(pattern).load();
        if (!is_built || (entry != nullptr && is_own(entry, name))) {
            own |= 1U << pattern;
        } else if (entry != nullptr) {
            _conf_mask_values(text, std::exchange(own, 0), newline);
            (void)REG_RemarkInfo(entry, buf, dataLen);
        }
    }
    _conf_mask_values(text, own, newline);
}
