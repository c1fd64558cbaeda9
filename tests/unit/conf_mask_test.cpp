// Masking of sensitive values: its equality with PCRE2, its behaviour on texts made to exhaust a
// backtracking search, and the table of patterns.
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

using code_ptr = std::unique_ptr<pcre2_code_8, decltype(&pcre2_code_free_8)>;

code_ptr compile(const std::string &pattern)
{
    pcre2_compile_context_8 *context = pcre2_compile_context_create_8(nullptr);
    pcre2_set_compile_extra_options_8(context, PCRE2_EXTRA_ALLOW_LOOKAROUND_BSK);
    int error = 0;
    PCRE2_SIZE offset = 0;
    code_ptr code(pcre2_compile_8(reinterpret_cast<PCRE2_SPTR8>(pattern.data()), pattern.size(), 0,
                                  &error, &offset, context),
                  pcre2_code_free_8);
    pcre2_compile_context_free_8(context);
    return code;
}

// A keyword stands for "@" in each of the pieces; what makes a pattern match comes often.
std::string random_text(std::mt19937 &random)
{
    using namespace std::string_literals;
    static const std::vector<std::string> often = {"@", "@",  "@",       "\"",      ": ",
                                                   ">", "</", "oldval=", ",newval="};
    static const std::vector<std::string> others = {
        "x", "k", " ", ",", "<", "old", "a:", "\n", "\r", "\r\n", "\v", "\x85"s, "\0"s};
    std::string text;
    for (std::size_t left = 2 + random() % 40; left > 0; --left) {
        const std::vector<std::string> &pieces = random() % 3 != 0 ? often : others;
        text += random() % 12 == 0 ? keywords[random() % keywords.size()]
                                   : pieces[random() % pieces.size()];
    }
    return with(keywords[random() % keywords.size()], text);
}

// The texts are too short for PCRE2 to give up, so that it can be asked.
TEST_F(MaskTest, EqualsPcre2)
{
    const std::pair<std::string, std::uint32_t> conventions[] = {
        {"(*LF)", PCRE2_NEWLINE_LF},           {"(*CR)", PCRE2_NEWLINE_CR},
        {"(*CRLF)", PCRE2_NEWLINE_CRLF},       {"(*ANY)", PCRE2_NEWLINE_ANY},
        {"(*ANYCRLF)", PCRE2_NEWLINE_ANYCRLF}, {"(*NUL)", PCRE2_NEWLINE_NUL}};
    std::uint32_t default_convention = 0;
    ASSERT_EQ(pcre2_config_8(PCRE2_CONFIG_NEWLINE, &default_convention), 0);
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    (void)masked("any text"); // builds the table
    for (const auto &[prefix, convention] : conventions) {
        const bool is_default = convention == default_convention;
        std::vector<code_ptr> table;
        for (const std::string &keyword : keywords) {
            for (const char *pattern :
                 {".*@.*>(.*)</.*@", ".*@.*oldval=(.*),newval=(.*)", ".*\".*@.*\".*: (.*)"}) {
                table.push_back(compile(prefix + with(keyword, pattern)));
            }
        }
        std::size_t matches = 0;
        for (int i = 0; i < (is_default ? 10000 : 1000); ++i) {
            const std::string text = random_text(random);
            const auto size = static_cast<int>(text.size());
            std::string expected = text;
            std::string result = text;
            for (std::size_t pattern = 0; pattern < pattern_count; ++pattern) {
                std::string by_table = expected;
                matches += REG_RemarkInfo(table[pattern].get(), expected.data(), size) == 0 ? 1 : 0;
                _conf_mask_values(result, pattern, convention);
                ASSERT_EQ(result, expected) << "from " << text << " with " << prefix;
                if (is_default) {
                    (void)REG_RemarkInfo(g_oxelKeyInfoRe[pattern], by_table.data(), size);
                    ASSERT_EQ(by_table, expected) << "from " << text << " by " << pattern;
                }
            }
            ASSERT_TRUE(!is_default || masked(text) == expected) << "from " << text;
        }
        EXPECT_GT(matches, 50U) << "the random texts hardly ever match";
    }
}

TEST_F(MaskTest, KeepsToTheLengthGiven)
{
    std::string text = "<key>ab</key><key>cd</key>";
    REG_RemarkKeyInfo(text.data(), 13);
    REG_RemarkKeyInfo(text.data(), -1);
    REG_RemarkKeyInfo(text.data(), 0);
    REG_RemarkKeyInfo(nullptr, 5);
    EXPECT_EQ(text, "<key>**</key><key>cd</key>");
}

std::string repeat(const std::string &piece, std::size_t length)
{
    std::string text;
    while (text.size() + piece.size() <= length) {
        text += piece;
    }
    return text;
}

// The shortest of several runs, in processor time, so that a busy machine does not count.
double masking_time(const std::string &text)
{
    double shortest = 1e9;
    for (int run = 0; run < 9; ++run) {
        std::string copy = text;
        const std::clock_t start = std::clock();
        REG_RemarkKeyInfo(copy.data(), static_cast<int>(copy.size()));
        shortest = std::min(shortest, static_cast<double>(std::clock() - start));
    }
    return shortest;
}

TEST_F(MaskTest, HostileTextsAreMaskedInLinearTime)
{
    std::string all;
    for (const std::string &keyword : keywords) {
        all += keyword + " ";
    }
    const std::string names = repeat(all, 40000);
    const struct {
        const char *name;
        std::string before;
        std::string value; // all of which is masked
        std::string after;
        int lines = 1;
    } rows[] = {
        {"quotes and names", repeat("\"", 20000) + names + "\": ", "hidden", ""},
        {"names and quotes", repeat("password \"", 60000) + ": ", "hidden", ""},
        {"lines of names", repeat("\"key", 786) + "\": ", "value 12345", "\n", 80},
        {"brackets", repeat("key>", 60000), "hidden", "</key"},
        {"closing elements", "key>", "hidden" + repeat("</key", 62000), "</key"},
        {"old values", repeat("psk oldval=", 60000), "hidden", ",newval="},
        // Nothing to mask, though each pattern nearly matches.
        {"names", names + repeat("s", 20000), "", ""},
        {"colons", repeat("secret: ", 60000), "", ""},
        {"empty lines", all + repeat("\n", 62000), "", ""},
        {"short lines", repeat(all + "\n", 62000), "", ""},
        {"the begin of a name", repeat("p", 62000) + all, "", ""},
    };
    for (const auto &row : rows) {
        std::string text;
        std::string expected;
        for (int line = 0; line < row.lines; ++line) {
            text += row.before + row.value + row.after;
            expected += row.before + std::string(row.value.size(), '*') + row.after;
        }
        EXPECT_TRUE(masked(text) == expected) << row.name;
        const double harmless = masking_time(repeat("the interface went up; ", text.size()));
        EXPECT_LT(masking_time(text) / harmless, 50) << row.name;
    }
}

TEST_F(MaskTest, EmptyEntriesAreSkippedAndAReplacedOneIsUsed)
{
    (void)masked("any text");
    g_oxelKeyInfoRe[12] = nullptr;
    EXPECT_EQ(masked("<key>a</key>\nkey oldval=a,newval=b"), "<key>a</key>\nkey oldval=*,newval=*");

    const code_ptr other = compile("pin=([0-9]+)");
    g_oxelKeyInfoRe[13] = other.get();
    EXPECT_EQ(masked("pin=12 pin=345x key oldval=a,newval=b"),
              "pin=** pin=***x key oldval=a,newval=b");

    g_oxelKeyInfoRe[0] = nullptr; // as if the table had not been built
    EXPECT_EQ(masked("<key>a</key> pin=12"), "<key>*</key> pin=12");
}

TEST_F(MaskTest, TableIsBuiltByManyThreadsAtOnce)
{
    for (int round = 0; round < 20; ++round) {
        g_oxelKeyInfoRe[0] = nullptr;
        std::array<std::string, 4> results;
        std::vector<std::thread> threads;
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

TEST_F(MaskTest, GlobalMatch)
{
    const std::string reversed = "\\K was used in an assertion to set the match start after its "
                                 "end.\nFrom end to start the match was: ";
    const struct {
        const char *pattern;
        std::string before;
        const char *after;
        int result = 0;
        std::string output = {};
    } rows[] = {
        {"b(.)", "b1 b2 c3 b4", "b* b* c3 b*"},
        {"b(.)", "none", "none", 1},
        {"b(.)(x)?", "b1b2x", "b*b**"},
        {"(a)|(b)", "abc", "**c"},
        {"(a)?", "xax\r\nax", "x*x\r\n*x"},                   // empty matches in between
        {"(a)?", "", ""},                                     // an empty match at the end
        {"(*CRLF)^|(x$)", "ax\r\nx", "ax\r\n*"},              // stepping over a line end of two
        {R"((*CRLF)(?=\r)|(\n))", "a\r\nb", "a\r\nb"},        // the line end is one step
        {R"((*LF)(?=\r)|(\n))", "a\r\nb", "a\r*b"},           // here it is two
        {"(*UTF)(?=\xc3\xa9)|(x)", "\xc3\xa9x", "\xc3\xa9*"}, // stepping over a character
        {"(?=(a))", "aba", "*b*"},                            // empty matches with a group
        // A start in front of the search, at the end of the text too, behind a long character.
        {R"((*UTF)(?<=\Ka)(b)?)", "a\u00e9aba", "a\u00e9a*a"},
        {R"((?=ab\K))", "ab", "ab", 1, reversed + "ab\n"},
        {R"((x)|(?=ab\K))", "xab", "*ab", 1, reversed + "ab\nRun abandoned\n"},
        {"(*LIMIT_MATCH=1)(a+)+b", "aaaa", "aaaa", 1},
        {"(*NO_START_OPT)(*LIMIT_MATCH=8)^(x)|a+a+c", "xaaaaaaaa", "*aaaaaaaa", 1,
         "Matching error -47\n"},
    };
    for (const auto &row : rows) {
        const code_ptr code = compile(row.pattern);
        ASSERT_NE(code, nullptr) << row.pattern;
        std::string text = row.before;
        testing::internal::CaptureStdout();
        const int result = REG_RemarkInfo(code.get(), text.data(), static_cast<int>(text.size()));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.output) << row.pattern;
        EXPECT_EQ(result, row.result) << row.pattern;
        EXPECT_EQ(text, row.after) << row.pattern;
    }
    EXPECT_EQ(REG_CreateOxelKeyRe("("), nullptr);
}

} // namespace
