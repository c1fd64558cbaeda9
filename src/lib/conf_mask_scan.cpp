// Masks values in one scan of a text, for those of the 21 patterns that are this library's own; see
// conf_mask.h.
//
// As each pattern is a row of literals with ".*" between them, and a greedy ".*" puts each literal
// as far to the right as those behind it allow, one search from the end of the line for one literal
// after the other finds the match that PCRE2 would find, once a scan of the text has found the
// line. What was found is remembered for the next pattern, so that a part of a line is seldom
// searched twice for the same literal.
#include "conf_mask.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <string_view>

namespace {

constexpr std::size_t npos = std::string_view::npos;

// For each byte the items whose landmark it is, as a set.
constexpr auto landmarks = [] {
    std::array<std::uint8_t, 256> table{};
    for (unsigned i = 0; i < sensitive_items.size(); ++i) {
        const auto &[keyword, landmark, sources] = sensitive_items[i];
        table[static_cast<unsigned char>(keyword[landmark])] |= static_cast<std::uint8_t>(1U << i);
    }
    return table;
}();

// The patterns of one form, as a set.
constexpr std::uint32_t every_item = 0b001'001'001'001'001'001'001;

// The lowest member of a set.
unsigned lowest(unsigned set)
{
    return static_cast<unsigned>(std::countr_zero(set));
}

// ---- search in one line -------------------------------------------------------------------------

std::string_view view(std::span<const char> text)
{
    return {text.data(), text.size()};
}

bool stands_at(std::string_view text, std::size_t position, std::string_view literal)
{
    return text.size() - position >= literal.size() && text[position] == literal.front() &&
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
    if (literal.size() == 1) {
        const void *found = memrchr(text.data(), literal.front(), text.size());
        return found == nullptr
                   ? npos
                   : static_cast<std::size_t>(static_cast<const char *>(found) - text.data());
    }
    std::size_t position = text.size() - literal.size();
    for (;;) {
        if (stands_at(text, position, literal)) {
            return position;
        }
        const std::size_t step = step_before(literal, text[position]);
        if (step > position) {
            return npos;
        }
        position -= step;
    }
}

// A byte that is the landmark of one keyword or more.
struct occurrence {
    std::size_t position; // npos for none
    unsigned items;       // a set
};

occurrence find_keyword(std::string_view text, std::size_t from)
{
    for (std::size_t position = from; position < text.size(); ++position) {
        unsigned found = 0;
        for (unsigned left = landmarks[static_cast<unsigned char>(text[position])]; left != 0;
             left &= left - 1) {
            const auto &[keyword, landmark, sources] = sensitive_items[lowest(left)];
            if (position >= landmark && stands_at(text, position - landmark, keyword)) {
                found |= left & -left;
            }
        }
        if (found != 0) {
            return {position, found};
        }
    }
    return {npos, 0};
}

// Finds the last occurrence of a literal in front of one position after the other, and searches
// only where it has not yet.
class last_search {
public:
    // There is none in the first `searched` bytes.
    void begin(std::string_view literal, std::size_t searched)
    {
        literal_ = literal;
        searched_ = searched;
    }
    // There is one, the last one in what is searched.
    void know(std::size_t found) { found_ = found; }

    // npos for none, and in front of npos, so that a search after a failed one fails too. Not
    // inlined into its ten callers, for size.
    [[gnu::noinline]] std::size_t before(std::size_t position, std::string_view text)
    {
        if (position == npos) {
            return npos;
        }
        if (position > searched_) {
            const std::size_t from = searched_ - std::min(searched_, literal_.size() - 1);
            const std::size_t newer = find_last({text.data() + from, position - from}, literal_);
            found_ = newer == npos ? found_ : from + newer;
            searched_ = position;
        } else if (found_ != npos && found_ + literal_.size() > position) {
            found_ = find_last({text.data(), position}, literal_);
            searched_ = position;
        }
        return found_;
    }
    // A part of the text has become asterisks, which no literal holds.
    void lose(std::size_t begin, std::size_t end, std::string_view text)
    {
        if (found_ != npos && found_ < end && found_ + literal_.size() > begin) {
            found_ = find_last({text.data(), found_ + literal_.size() - 1}, literal_);
        }
    }

private:
    std::string_view literal_;
    std::size_t found_ = npos; // the last one in front of `searched_`
    std::size_t searched_ = 0;
};

// The marks between a keyword and its value. One of the first three makes a form possible.
enum mark : unsigned { closing_tag, new_value, colon, tag_end, old_value, quote };

constexpr std::array<std::string_view, quote + 1> marks = {"</", ",newval=", ": ",
                                                           ">",  "oldval=",  "\""};

// Masks the values of one line, by the patterns of one keyword after the other.
class line_mask {
public:
    explicit line_mask(std::span<char> line) : line_(line)
    {
        for (std::size_t i = 0; i < marks.size(); ++i) {
            marks_[i].begin(marks[i], 0);
        }
    }

    // The forms that can match at all, as a set: most lines are done with that.
    std::uint32_t forms()
    {
        std::uint32_t possible = 0;
        for (const mark needed : {closing_tag, new_value, colon}) {
            possible |= (last(needed) == npos ? 0U : 1U) << needed;
        }
        return possible;
    }

    // Finds the last occurrence of each keyword; `next` is the first occurrence of any.
    void find_keywords(occurrence next)
    {
        for (std::size_t i = 0; i < names_.size(); ++i) {
            names_[i].begin(sensitive_items[i].keyword, line_.size());
        }
        for (; next.position != npos; next = find_keyword(view(line_), next.position + 1)) {
            for (unsigned left = next.items; left != 0; left &= left - 1) {
                const unsigned item = lowest(left);
                names_[item].know(next.position - sensitive_items[item].landmark);
            }
        }
    }

    void apply(std::size_t item, std::uint32_t forms)
    {
        last_search &name = names_[item];
        if ((forms & 1) != 0) { // .*KEYWORD.*>(.*)</.*KEYWORD
            const std::size_t value_end = last(closing_tag, last(name));
            const std::size_t bracket = last(tag_end, value_end);
            if (last(name, bracket) != npos) {
                hide(bracket + 1, value_end);
            }
        }
        if ((forms & 2) != 0) { // .*KEYWORD.*oldval=(.*),newval=(.*)
            const std::size_t second = last(new_value);
            const std::size_t first = last(old_value, second);
            if (last(name, first) != npos) {
                hide(first + marks[old_value].size(), second);
                hide(second + marks[new_value].size(), line_.size());
            }
        }
        if ((forms & 4) != 0) { // .*".*KEYWORD.*".*: (.*)
            const std::size_t value = last(colon);
            if (last(quote, last(name, last(quote, value))) != npos) {
                hide(value + marks[colon].size(), line_.size());
            }
        }
    }

private:
    std::size_t last(last_search &which, std::size_t position)
    {
        return which.before(position, view(line_));
    }
    std::size_t last(last_search &which) { return last(which, line_.size()); }
    std::size_t last(mark which, std::size_t position) { return last(marks_[which], position); }
    std::size_t last(mark which) { return last(marks_[which]); }

    void hide(std::size_t begin, std::size_t end)
    {
        std::memset(line_.data() + begin, '*', end - begin);
        for (last_search &each : marks_) {
            each.lose(begin, end, view(line_));
        }
        for (last_search &each : names_) {
            each.lose(begin, end, view(line_));
        }
    }

    std::span<char> line_;
    std::array<last_search, marks.size()> marks_;
    std::array<last_search, sensitive_items.size()> names_;
};

// `first` is the first occurrence in the line.
void mask_line(std::span<char> line, occurrence first, std::uint32_t patterns)
{
    line_mask masked(line);
    patterns &= masked.forms() * every_item;
    if (patterns == 0) {
        return;
    }
    masked.find_keywords(first);
    for (std::size_t item = 0; item < sensitive_items.size(); ++item) {
        masked.apply(item, patterns >> (item * 3));
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

} // namespace

void _conf_mask_values(std::span<char> text, std::uint32_t patterns, std::uint32_t newline)
{
    const std::string_view searched = view(text);
    const line_end end = line_end_of(newline);
    std::size_t from = 0;
    for (occurrence found; (found = find_keyword(searched, from)).position != npos;) {
        const std::size_t begin = line_begin(searched, end, from, found.position);
        from = line_finish(searched, end, found.position);
        mask_line(text.subspan(begin, from - begin), {found.position - begin, found.items},
                  patterns);
    }
}
