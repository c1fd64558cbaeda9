// Masking of sensitive values, by 21 patterns: seven keywords in three forms each.
//
// The patterns stand compiled in the exported table g_oxelKeyInfoRe. PCRE2 does not run them,
// though: on a line full of keywords or quotes its backtracking takes minutes, or gives up and
// leaves the value readable. As each pattern is a row of literals with ".*" between them, and a
// greedy ".*" puts each literal as far to the right as those behind it allow, one search from the
// end of the line for one literal after the other finds the same match, once a scan of the text has
// found the line. PCRE2 runs only a pattern that a program has put into the table itself.
#include "conf_mask.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include "support/owners.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

constexpr std::size_t pattern_count = 21;

pcre2_real_code_8 *g_oxelKeyInfoRe[pattern_count];

namespace {

constexpr std::size_t npos = std::string_view::npos;

struct sensitive_item {
    std::string_view keyword;
    std::size_t landmark;                 // its byte that is rarest in other texts
    std::array<const char *, 3> patterns; // element, value pair, quoted name
};

#define ITEM(KEYWORD, LANDMARK)                                                                    \
    {                                                                                              \
        KEYWORD, std::string_view(KEYWORD).find(LANDMARK),                                         \
        {                                                                                          \
            ".*" KEYWORD ".*>(.*)</.*" KEYWORD, ".*" KEYWORD ".*oldval=(.*),newval=(.*)",          \
                ".*\".*" KEYWORD ".*\".*: (.*)"                                                    \
        }                                                                                          \
    }
constexpr std::array<sensitive_item, 7> items = {{
    ITEM("password", 'w'),
    ITEM("cipher", 'h'),
    ITEM("psk", 'k'),
    ITEM("authentication-text", 'x'),
    ITEM("key", 'k'),
    ITEM("text-name", 'x'),
    ITEM("secret", 'c'),
}};
#undef ITEM

constexpr auto is_landmark = [] {
    std::array<bool, 256> table{};
    for (const sensitive_item &item : items) {
        table[static_cast<unsigned char>(item.keyword[item.landmark])] = true;
    }
    return table;
}();

// Patterns as sets: those of one form, those of one keyword.
constexpr std::uint32_t every_item = 0b001'001'001'001'001'001'001;
constexpr std::uint32_t every_form = 0b111;

// The patterns that this file compiled, each also in the exported table unless replaced there.
std::array<pcre2_code_8 *, pattern_count> own_patterns;

// ---- search in one line -------------------------------------------------------------------------

std::string_view view(std::span<const char> text)
{
    return {text.data(), text.size()};
}

// The text in front of `position`; nothing for npos, so that a search after a failed one fails too.
std::string_view before(std::string_view text, std::size_t position)
{
    return {text.data(), position == npos ? 0 : position};
}

bool stands_at(std::string_view text, std::size_t position, std::string_view literal)
{
    return text.size() - position >= literal.size() &&
           std::memcmp(text.data() + position, literal.data(), literal.size()) == 0;
}

// How far in front of a byte `read` the literal may begin at the earliest, if not with that byte.
std::size_t step_before(std::string_view literal, char read)
{
    std::size_t step = 1;
    while (step < literal.size() && literal[step] != read) {
        ++step;
    }
    return step;
}

// The position of the last `literal`, or npos.
std::size_t find_last(std::string_view text, std::string_view literal)
{
    if (text.size() < literal.size()) {
        return npos;
    }
    std::size_t position = text.size() - literal.size();
    for (;;) {
        const char read = text[position];
        if (read == literal.front() && stands_at(text, position, literal)) {
            return position;
        }
        const std::size_t step = step_before(literal, read);
        if (step > position) {
            return npos;
        }
        position -= step;
    }
}

// A byte that one keyword or more have in common at their landmarks.
struct occurrence {
    std::size_t position;   // npos for none
    std::uint32_t patterns; // of those keywords
};

occurrence find_keyword(std::string_view text, std::size_t from)
{
    for (std::size_t position = from; position < text.size(); ++position) {
        std::uint32_t patterns = 0;
        const bool is_one = is_landmark[static_cast<unsigned char>(text[position])];
        for (std::size_t i = 0; is_one && i < items.size(); ++i) {
            const auto &[keyword, landmark, sources] = items[i];
            if (text[position] == keyword[landmark] && position >= landmark &&
                stands_at(text, position - landmark, keyword)) {
                patterns |= every_form << (i * sources.size());
            }
        }
        if (patterns != 0) {
            return {position, patterns};
        }
    }
    return {npos, 0};
}

void mask(std::span<char> text, std::size_t begin, std::size_t end)
{
    std::fill(text.begin() + static_cast<std::ptrdiff_t>(begin),
              text.begin() + static_cast<std::ptrdiff_t>(end), '*');
}

// .*KEYWORD.*>(.*)</.*KEYWORD
void mask_element(std::span<char> line, std::string_view keyword)
{
    const std::string_view text = view(line);
    const std::size_t closing_name = find_last(text, keyword);
    const std::size_t value_end = find_last(before(text, closing_name), "</");
    const std::size_t bracket = find_last(before(text, value_end), ">");
    if (find_last(before(text, bracket), keyword) != npos) {
        mask(line, bracket + 1, value_end);
    }
}

// .*KEYWORD.*oldval=(.*),newval=(.*)
void mask_value_pair(std::span<char> line, std::string_view keyword)
{
    constexpr std::string_view old_mark = "oldval=";
    constexpr std::string_view new_mark = ",newval=";
    const std::string_view text = view(line);
    const std::size_t new_value = find_last(text, new_mark);
    const std::size_t old_value = find_last(before(text, new_value), old_mark);
    if (find_last(before(text, old_value), keyword) != npos) {
        mask(line, old_value + old_mark.size(), new_value);
        mask(line, new_value + new_mark.size(), line.size());
    }
}

// .*".*KEYWORD.*".*: (.*)
void mask_quoted(std::span<char> line, std::string_view keyword)
{
    constexpr std::string_view colon = ": ";
    const std::string_view text = view(line);
    const std::size_t value = find_last(text, colon);
    const std::size_t closing_quote = find_last(before(text, value), "\"");
    const std::size_t name = find_last(before(text, closing_quote), keyword);
    if (find_last(before(text, name), "\"") != npos) {
        mask(line, value + colon.size(), line.size());
    }
}

constexpr std::array forms = {mask_element, mask_value_pair, mask_quoted};

// What a line must hold for one of its forms to match: most lines are done with that.
constexpr std::array<std::string_view, forms.size()> marks = {"</", ",newval=", ": "};

// `first` is the first occurrence in the line.
void mask_line(std::span<char> line, occurrence first, std::uint32_t patterns)
{
    for (std::size_t form = 0; form < forms.size(); ++form) {
        if (find_last(view(line), marks[form]) == npos) {
            patterns &= ~(every_item << form);
        }
    }
    std::uint32_t present = 0;
    for (occurrence next = first; next.position != npos && (patterns & ~present) != 0;
         next = find_keyword(view(line), next.position + 1)) {
        present |= next.patterns;
    }
    patterns &= present;
    for (std::size_t pattern = 0; patterns >> pattern != 0; ++pattern) {
        if ((patterns >> pattern & 1) != 0) {
            forms[pattern % forms.size()](line, items[pattern / forms.size()].keyword);
        }
    }
}

// ---- lines --------------------------------------------------------------------------------------

// What ends a line: the bytes together, or each of them.
struct line_end {
    std::string_view bytes;
    bool each = false;
};

line_end line_end_of(std::uint32_t newline)
{
    using std::string_view_literals::operator""sv;
    switch (newline) {
    case PCRE2_NEWLINE_CR:
        return {"\r"};
    case PCRE2_NEWLINE_CRLF:
        return {"\r\n"};
    case PCRE2_NEWLINE_ANY:
        return {"\n\v\f\r\x85", true};
    case PCRE2_NEWLINE_ANYCRLF:
        return {"\n\r", true};
    case PCRE2_NEWLINE_NUL:
        return {"\0"sv};
    default:
        return {"\n"};
    }
}

// The begin of the line that holds `position`, not searched for in front of `from`. The rest of a
// line end may remain in front of the line: it takes part in no match.
std::size_t line_begin(std::string_view text, line_end end, std::size_t from, std::size_t position)
{
    const std::string_view head(text.data() + from, position - from);
    const std::size_t found = end.each ? head.find_last_of(end.bytes) : find_last(head, end.bytes);
    return found == npos ? from : from + found + 1;
}

std::size_t line_finish(std::string_view text, line_end end, std::size_t position)
{
    return std::min(text.size(), end.each ? text.find_first_of(end.bytes, position)
                                          : text.find(end.bytes, position));
}

// ---- table --------------------------------------------------------------------------------------

std::atomic_ref<pcre2_code_8 *> table_entry(std::size_t pattern)
{
    return std::atomic_ref<pcre2_code_8 *>(g_oxelKeyInfoRe[pattern]);
}

// Two threads may build at once: the pattern that is compiled second is dropped again. Entry 0 says
// that the table is complete, so it comes last.
void build_table()
{
    for (std::size_t pattern = pattern_count; pattern-- > 0;) {
        const std::atomic_ref<pcre2_code_8 *> own(own_patterns[pattern]);
        pcre2_code_8 *known = own.load();
        if (known == nullptr) {
            pcre2_code_8 *fresh = REG_CreateOxelKeyRe(items[pattern / 3].patterns[pattern % 3]);
            if (own.compare_exchange_strong(known, fresh)) {
                known = fresh;
            } else {
                pcre2_code_free_8(fresh);
            }
        }
        table_entry(pattern).store(known);
    }
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
            mask(text, begin, end);
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

void _conf_mask_values(std::span<char> text, std::uint32_t patterns, std::uint32_t newline)
{
    const std::string_view searched = view(text);
    const line_end end = line_end_of(newline);
    std::size_t from = 0;
    for (occurrence found; (found = find_keyword(searched, from)).position != npos;) {
        const std::size_t begin = line_begin(searched, end, from, found.position);
        from = line_finish(searched, end, found.position);
        mask_line(text.subspan(begin, from - begin), {found.position - begin, found.patterns},
                  patterns);
    }
}

void REG_RemarkKeyInfo(char *buf, int dataLen)
{
    if (buf == nullptr || dataLen <= 0) {
        return;
    }
    if (table_entry(0).load() == nullptr) {
        build_table();
    }
    std::uint32_t newline = PCRE2_NEWLINE_LF;
    (void)pcre2_config_8(PCRE2_CONFIG_NEWLINE, &newline);
    const std::span text(buf, static_cast<std::size_t>(dataLen));
    // Those not applied yet: a replaced pattern sees what the ones before it have left.
    std::uint32_t own = 0;
    for (std::size_t pattern = 0; pattern < pattern_count; ++pattern) {
        pcre2_code_8 *re = table_entry(pattern).load();
        if (re == nullptr) {
            continue;
        }
        if (re == own_patterns[pattern]) {
            own |= 1U << pattern;
        } else {
            _conf_mask_values(text, std::exchange(own, 0), newline);
            (void)REG_RemarkInfo(re, buf, dataLen);
        }
    }
    _conf_mask_values(text, own, newline);
}
