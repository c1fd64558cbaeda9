// Masking of sensitive values: its examples, its equality with PCRE2 run without limits, and its
// behaviour on texts made to exhaust a backtracking search.
#include "conf_mask.h"
#include "test_support.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <memory>
#include <random>
#include <thread>

namespace {

class MaskTest : public test::Fixture {};

constexpr std::size_t pattern_count = 21;
const std::array<std::string, 7> keywords = {
    "password", "cipher", "psk", "authentication-text", "key", "text-name", "secret"};

std::string masked(std::string text)
{
    REG_RemarkKeyInfo(text.data(), static_cast<int>(text.size()));
    return text;
}

// The text with a keyword in place of each "@".
std::string with(const std::string &keyword, std::string text)
{
    for (std::size_t at = 0; (at = text.find('@', at)) != std::string::npos;) {
        text.replace(at, 1, keyword);
    }
    return text;
}

struct change {
    std::string before;
    std::string after;
};

TEST_F(MaskTest, MasksEveryKeywordInEveryForm)
{
    for (const std::string &keyword : keywords) {
        const std::vector<change> changes = {
            {"<@>abc123</@>", "<@>******</@>"},
            {"@ oldval=foo,newval=barbaz", "@ oldval=***,newval=******"},
            {"\"my-@s\" is: abcdefg", "\"my-@s\" is: *******"},
        };
        for (const auto &[before, after] : changes) {
            EXPECT_EQ(masked(with(keyword, before)), with(keyword, after));
        }
    }
}

TEST_F(MaskTest, Examples)
{
    const std::vector<change> changes = {
        {"no such word: abc <name>abc</name>", "no such word: abc <name>abc</name>"},
        {"<PASSWORD>abc</PASSWORD>", "<PASSWORD>abc</PASSWORD>"},
        {"<key></key> and <psk>cd</psk>", "<key></key> and <psk>**</psk>"},
        {"<key>ab</key>\n<psk>cd</psk>\n<key>ef</key>\n",
         "<key>**</key>\n<psk>**</psk>\n<key>**</key>\n"},
        {"<key>ab\n</key>", "<key>ab\n</key>"},
        {"<key>ab</key><key>cd</key>", "<key>ab</key><key>**</key>"},
        {"password oldval=a,newval=b", "password oldval=*,newval=*"},
        {"password oldval=a,b,newval=c,newval=d", "password oldval=************,newval=*"},
        {"oldval=a,newval=b password", "oldval=a,newval=b password"},
        {"\"pre-shared-key\": abcdefg", "\"pre-shared-key\": *******"},
        {"key\" \": abc", "key\" \": abc"},
        {"\"a\" keyboard \"b\": c: d", "\"a\" keyboard \"b\": c: *"},
        {std::string("<key>a\0b</key>", 14), "<key>***</key>"},
    };
    for (const auto &[before, after] : changes) {
        EXPECT_EQ(masked(before), after);
    }

    std::string text = "<key>ab</key><key>cd</key>";
    REG_RemarkKeyInfo(text.data(), 13);
    EXPECT_EQ(text, "<key>**</key><key>cd</key>") << "beyond the length given";
    REG_RemarkKeyInfo(text.data(), -1);
    REG_RemarkKeyInfo(text.data(), 0);
    REG_RemarkKeyInfo(nullptr, 5);
    EXPECT_EQ(text, "<key>**</key><key>cd</key>");
}

// ---- equality with PCRE2 ------------------------------------------------------------------------

using code_ptr = std::unique_ptr<pcre2_code_8, decltype(&pcre2_code_free_8)>;

code_ptr compile(const std::string &pattern, std::uint32_t newline)
{
    pcre2_compile_context_8 *context = pcre2_compile_context_create_8(nullptr);
    pcre2_set_newline_8(context, newline);
    pcre2_set_compile_extra_options_8(context, PCRE2_EXTRA_ALLOW_LOOKAROUND_BSK);
    int error = 0;
    PCRE2_SIZE offset = 0;
    code_ptr code(pcre2_compile_8(reinterpret_cast<PCRE2_SPTR8>(pattern.data()), pattern.size(), 0,
                                  &error, &offset, context),
                  pcre2_code_free_8);
    pcre2_compile_context_free_8(context);
    return code;
}

std::vector<code_ptr> compile_table(std::uint32_t newline)
{
    std::vector<code_ptr> table;
    for (const std::string &keyword : keywords) {
        for (const char *pattern :
             {".*@.*>(.*)</.*@", ".*@.*oldval=(.*),newval=(.*)", ".*\".*@.*\".*: (.*)"}) {
            table.push_back(compile(with(keyword, pattern), newline));
        }
    }
    return table;
}

// Masks all matches, with unlimited effort. No pattern of the table matches an empty text.
void mask_by_pcre2(const pcre2_code_8 *code, std::string &text)
{
    pcre2_match_context_8 *unlimited = pcre2_match_context_create_8(nullptr);
    pcre2_set_match_limit_8(unlimited, UINT32_MAX);
    pcre2_set_depth_limit_8(unlimited, UINT32_MAX);
    pcre2_set_heap_limit_8(unlimited, UINT32_MAX);
    pcre2_match_data_8 *data = pcre2_match_data_create_from_pattern_8(code, nullptr);
    const PCRE2_SIZE *offsets = pcre2_get_ovector_pointer_8(data);
    PCRE2_SIZE from = 0;
    int count = 0;
    while ((count = pcre2_match_8(code, reinterpret_cast<PCRE2_SPTR8>(text.data()), text.size(),
                                  from, 0, data, unlimited)) > 0) {
        for (std::size_t group = 1; group < static_cast<std::size_t>(count); ++group) {
            std::fill(text.begin() + static_cast<long>(offsets[2 * group]),
                      text.begin() + static_cast<long>(offsets[2 * group + 1]), '*');
        }
        from = offsets[1];
    }
    EXPECT_EQ(count, PCRE2_ERROR_NOMATCH);
    pcre2_match_data_free_8(data);
    pcre2_match_context_free_8(unlimited);
}

std::string random_text(std::mt19937 &random)
{
    using namespace std::string_literals;
    static const std::vector<std::string> common = {
        "\"", ": ", ">", "</", "oldval=", ",newval=", "x", "k", " ", ",", "<", "old", "a:"};
    static const std::vector<std::string> ends = {"\n", "\n", "\r", "\r\n", "\v", "\x85", "\0"s};
    const std::string &keyword = keywords[random() % keywords.size()];
    std::string text;
    for (std::size_t left = 2 + random() % 24; left > 0; --left) {
        switch (random() % 8) {
        case 0:
            text += random() % 2 == 0 ? keyword : keywords[random() % keywords.size()];
            break;
        case 1:
            text += random() % 3 == 0 ? ends[random() % ends.size()] : keyword;
            break;
        default:
            text += common[random() % common.size()];
        }
    }
    return text;
}

TEST_F(MaskTest, EqualsPcre2WithoutLimits)
{
    constexpr std::array<std::uint32_t, 6> conventions = {PCRE2_NEWLINE_LF,      PCRE2_NEWLINE_CR,
                                                          PCRE2_NEWLINE_CRLF,    PCRE2_NEWLINE_ANY,
                                                          PCRE2_NEWLINE_ANYCRLF, PCRE2_NEWLINE_NUL};
    std::uint32_t default_convention = 0;
    ASSERT_EQ(pcre2_config_8(PCRE2_CONFIG_NEWLINE, &default_convention), 0);
    const unsigned seed = std::random_device{}();
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    int changed = 0;
    for (const std::uint32_t convention : conventions) {
        const std::vector<code_ptr> table = compile_table(convention);
        // Most of the texts go through the public function, as the build has its lines.
        const int texts = convention == default_convention ? 10000 : 1000;
        for (int i = 0; i < texts; ++i) {
            const std::string text = random_text(random);
            std::string expected = text;
            std::string result = text;
            for (std::size_t pattern = 0; pattern < pattern_count; ++pattern) {
                mask_by_pcre2(table[pattern].get(), expected);
                _conf_mask_values(result, pattern, convention);
            }
            ASSERT_EQ(result, expected) << "from " << text << " with convention " << convention;
            if (convention == default_convention) {
                ASSERT_EQ(masked(text), expected) << "from " << text;
            }
            changed += expected != text ? 1 : 0;
        }
    }
    EXPECT_GT(changed, 1000) << "the random texts hardly ever match";
}

// ---- hostile texts ------------------------------------------------------------------------------

std::string repeat(const std::string &piece, std::size_t length)
{
    std::string text;
    while (text.size() + piece.size() <= length) {
        text += piece;
    }
    return text;
}

double processor_seconds()
{
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

// The shortest of several runs, in processor time, so that a busy machine does not count.
double masking_time(const std::string &text)
{
    double shortest = 1e9;
    for (int run = 0; run < 9; ++run) {
        std::string copy = text;
        const double start = processor_seconds();
        REG_RemarkKeyInfo(copy.data(), static_cast<int>(copy.size()));
        shortest = std::min(shortest, processor_seconds() - start);
    }
    return shortest;
}

TEST_F(MaskTest, HostileTextsAreMaskedInLinearTime)
{
    std::string all_keywords;
    for (const std::string &keyword : keywords) {
        all_keywords += keyword + " ";
    }
    const std::string lines_head = repeat("\"key", 786);
    std::string lines;
    std::string masked_lines;
    for (int i = 0; i < 80; ++i) {
        lines += lines_head + "\": value 12345\n";
        masked_lines += lines_head + "\": ***********\n";
    }
    const std::string quotes = repeat("\"", 20000);
    const std::string names = repeat(all_keywords, 40000);
    const std::string brackets = repeat("key>", 60000);
    const std::string endings = repeat("</key", 62000);
    const std::string pairs = repeat("psk oldval=", 60000);
    const std::string colons = repeat("secret: ", 60000);
    const std::vector<change> changes = {
        {quotes + names + "\": hidden", quotes + names + "\": ******"},
        {repeat("password \"", 60000) + ": hidden", repeat("password \"", 60000) + ": ******"},
        {brackets + "hidden</key", brackets + "******</key"},
        {"key>hidden" + endings, "key>" + std::string(6 + endings.size() - 5, '*') + "</key"},
        {pairs + "hidden,newval=1", pairs + "******,newval=*"},
        {lines, masked_lines},
        // Nothing to mask, though each pattern nearly matches.
        {names + repeat("s", 20000), names + repeat("s", 20000)},
        {colons, colons},
        {all_keywords + repeat("\n", 62000), all_keywords + repeat("\n", 62000)},
        {repeat(all_keywords + "\n", 62000), repeat(all_keywords + "\n", 62000)},
        {repeat("p", 62000) + all_keywords, repeat("p", 62000) + all_keywords},
    };
    for (const auto &[before, after] : changes) {
        const std::string title = before.substr(0, 30);
        EXPECT_TRUE(masked(before) == after) << title;
        const double harmless = masking_time(repeat("the interface went up; ", before.size()));
        const double ratio = masking_time(before) / harmless;
        EXPECT_LT(ratio, 50) << title;
        std::printf("%5.1f times as long as harmless text: %.20s\n", ratio, title.c_str());
    }
}

// ---- the table ----------------------------------------------------------------------------------

class MaskTableTest : public MaskTest {
protected:
    void SetUp() override
    {
        MaskTest::SetUp();
        (void)masked("any text");
        std::copy(std::begin(g_oxelKeyInfoRe), std::end(g_oxelKeyInfoRe), saved_.begin());
    }
    void TearDown() override
    {
        std::copy(saved_.begin(), saved_.end(), std::begin(g_oxelKeyInfoRe));
        MaskTest::TearDown();
    }

private:
    std::array<pcre2_code_8 *, pattern_count> saved_{};
};

TEST_F(MaskTableTest, HoldsThePatternsInOrder)
{
    constexpr std::array texts = {"<@>v</@", "@oldval=v,newval=v", "\"@\": v"};
    const std::vector<code_ptr> expected = compile_table(PCRE2_NEWLINE_LF);
    for (std::size_t i = 0; i < pattern_count; ++i) {
        ASSERT_NE(g_oxelKeyInfoRe[i], nullptr);
        for (std::size_t other = 0; other < pattern_count; ++other) {
            std::string text = with(keywords[other / 3], texts[other % 3]);
            std::string same = text;
            mask_by_pcre2(expected[i].get(), same);
            mask_by_pcre2(g_oxelKeyInfoRe[i], text);
            EXPECT_EQ(text, same) << i << " on the text for " << other;
        }
    }
}

TEST_F(MaskTableTest, EmptyEntriesAreSkippedAndAReplacedOneIsUsed)
{
    g_oxelKeyInfoRe[12] = nullptr;
    EXPECT_EQ(masked("<key>a</key>\nkey oldval=a,newval=b"), "<key>a</key>\nkey oldval=*,newval=*");

    const code_ptr other = compile("pin=([0-9]+)", PCRE2_NEWLINE_LF);
    g_oxelKeyInfoRe[13] = other.get();
    EXPECT_EQ(masked("pin=12 pin=345x key oldval=a,newval=b"),
              "pin=** pin=***x key oldval=a,newval=b");

    g_oxelKeyInfoRe[0] = nullptr; // as if the table had not been built
    EXPECT_EQ(masked("<key>a</key> pin=12"), "<key>*</key> pin=12");
}

TEST_F(MaskTableTest, IsBuiltByManyThreadsAtOnce)
{
    for (int round = 0; round < 20; ++round) {
        g_oxelKeyInfoRe[0] = nullptr;
        std::array<std::string, 4> results;
        std::vector<std::thread> threads;
        threads.reserve(results.size());
        for (std::string &result : results) {
            threads.emplace_back([&result] { result = masked("<key>a</key><secret>b</secret>"); });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        for (const std::string &result : results) {
            EXPECT_EQ(result, "<key>*</key><secret>*</secret>");
        }
    }
}

// ---- global match -------------------------------------------------------------------------------

const std::string reversed = "\\K was used in an assertion to set the match start after its end.\n"
                             "From end to start the match was: ";

struct global_match {
    std::string pattern;
    std::string before;
    std::string after;
    int result;
    std::string output;
};

TEST_F(MaskTest, GlobalMatch)
{
    const std::vector<global_match> matches = {
        {"b(.)", "b1 b2 c3 b4", "b* b* c3 b*", 0, ""},
        {"b(.)", "none", "none", 1, ""},
        {"b(.)(x)?", "b1b2x", "b*b**", 0, ""},
        {"(a)|(b)", "abc", "**c", 0, ""},
        {"(a)?", "xax\r\nax", "x*x\r\n*x", 0, ""},           // empty matches in between
        {"(a)?", "", "", 0, ""},                             // an empty match at the end
        {"(*CRLF)^|(x$)", "ax\r\nx", "ax\r\n*", 0, ""},      // stepping over a line end of two
        {"(*CRLF)(?=\\r)|(\\n)", "a\r\nb", "a\r\nb", 0, ""}, // the line end is one step
        {"(*LF)(?=\\r)|(\\n)", "a\r\nb", "a\r*b", 0, ""},    // here it is two
        {"(*UTF)(?=\xc3\xa9)|(x)", "\xc3\xa9x", "\xc3\xa9*", 0, ""}, // stepping over a character
        {"(?=(a))", "aba", "*b*", 0, ""},                            // empty matches with a group
        // A start in front of the search, at the end of the text too, behind a long character.
        {"(*UTF)(?<=\\Ka)(b)?",
         "a\xc3\xa9"
         "aba",
         "a\xc3\xa9"
         "a*a",
         0, ""},
        {"(?=ab\\K)", "ab", "ab", 1, reversed + "ab\n"},
        {"(x)|(?=ab\\K)", "xab", "*ab", 1, reversed + "ab\nRun abandoned\n"},
        {"(*LIMIT_MATCH=1)(a+)+b", "aaaa", "aaaa", 1, ""},
        {"(*NO_START_OPT)(*LIMIT_MATCH=8)^(x)|a+a+c", "xaaaaaaaa", "*aaaaaaaa", 1,
         "Matching error -47\n"},
    };
    for (const global_match &match : matches) {
        const code_ptr code = compile(match.pattern, PCRE2_NEWLINE_LF);
        ASSERT_NE(code, nullptr) << match.pattern;
        std::string text = match.before;
        testing::internal::CaptureStdout();
        const int result = REG_RemarkInfo(code.get(), text.data(), static_cast<int>(text.size()));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), match.output) << match.pattern;
        EXPECT_EQ(result, match.result) << match.pattern;
        EXPECT_EQ(text, match.after) << match.pattern;
    }
    EXPECT_EQ(REG_CreateOxelKeyRe("("), nullptr);
}

} // namespace
