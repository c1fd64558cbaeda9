// Masking of sensitive values: what each form of them becomes, texts made to exhaust a backtracking
// search, and the table of patterns.
#include "conf_mask.h"
#include "test_support.h"
#include "timing.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <array>
#include <cstring>
#include <pcre2.h>
#include <regex>

namespace {

using test::repeat;
using MaskTest = test::Fixture;

std::string masked(std::string text)
{
    REG_RemarkKeyInfo(text.data(), static_cast<int>(text.size()));
    return text;
}

TEST_F(MaskTest, Forms)
{
    // The keyword stands for "@".
    const std::pair<std::string, std::string> rows[] = {
        {"<x @='1'>ab</y @>cd</@", "<x @='1'>ab</y @>**</@"},
        {"@>a\n</@ @>b</@", "@>a\n</@ @>*</@"},
        {"@ oldval=a,newval=b,newval=c d", "@ oldval=**********,newval=***"},
        {"@\" \"\": a\n\"x@y\": b: c", "@\" \"\": a\n\"x@y\": b: *"},
        {"oldval=b,newval=c >a</@ \"\" @: d", "oldval=b,newval=c >a</@ \"\" @: d"},
        {"@ <x>a</b> ,newval=c,oldval=d \": e", "@ <x>a</b> ,newval=c,oldval=d \": e"},
    };
    for (const std::string keyword :
         {"password", "cipher", "psk", "authentication-text", "key", "text-name", "secret"}) {
        for (const auto &[before, after] : rows) {
            const auto with_keyword = [&](const std::string &text) {
                return std::regex_replace(text, std::regex("@"), keyword);
            };
            EXPECT_EQ(masked(with_keyword(before)), with_keyword(after));
        }
    }
    std::string text = "<key>ab</key><key>cd</key>";
    REG_RemarkKeyInfo(text.data(), 13);
    REG_RemarkKeyInfo(text.data(), -1);
    REG_RemarkKeyInfo(nullptr, 5);
    EXPECT_EQ(text, "<key>**</key><key>cd</key>");

    // Of lines in other builds.
    const std::tuple<std::uint32_t, std::string, std::string> ends[] = {
        {PCRE2_NEWLINE_CR, "\r", "\n"},      {PCRE2_NEWLINE_ANY, "\x85", "x"},
        {PCRE2_NEWLINE_ANYCRLF, "\r", "\v"}, {PCRE2_NEWLINE_NUL, std::string(1, '\0'), "\n"},
        {PCRE2_NEWLINE_CRLF, "\r\n", "\n"},
    };
    for (const auto &[convention, end, other] : ends) {
        text = "key" + end + "key oldval=a,newval=b" + other + end + "c";
        _conf_mask_values(text, 1U << 13, convention);
        EXPECT_EQ(text, "key" + end + "key oldval=*,newval=**" + end + "c") << convention;
    }
}

TEST_F(MaskTest, HostileTextsAreMaskedInLinearTime)
{
    const std::string all = "password cipher psk authentication-text key text-name secret ";
    // All in the middle is masked.
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {repeat("\"", 20000) + repeat(all, 600) + "\": ", "hidden", ""},
        {repeat("password \"", 6000) + ": ", "hidden", ""},
        {repeat("key>", 15000), "hidden" + repeat("</key", 12000), "</key"},
        {repeat("psk oldval=", 5500), "hidden", ",newval="},
        {all + repeat("\n", 62000), "", ""},
        {"oldval=<cipher secret password key>psk \": ,newval=</" + repeat("k", 62000), "", ""},
        {repeat(all + "\n", 1000), "", ""},
    };
    for (const auto &[before, value, after] : rows) {
        const std::string text = before + value + after;
        EXPECT_TRUE(masked(text) == before + std::string(value.size(), '*') + after);
        const std::string other =
            repeat("the interface went up; ", static_cast<int>(text.size() / 23));
        EXPECT_LT(test::shortest_time([&] { (void)masked(text); }),
                  50 * test::shortest_time([&] { (void)masked(other); }))
            << text.substr(0, 80);
    }
}

TEST_F(MaskTest, AProgramChangesTheTable)
{
    const std::string text = "<key>a</key> pin=12 pin=345x key oldval=a,newval=b";
    (void)masked(""); // builds the table
    pcre2_code_free_8(std::exchange(g_oxelKeyInfoRe[12], nullptr));
    // A pattern of the program's, as if it had got the place of the library's.
    pcre2_code_8 *const pin = REG_CreateOxelKeyRe("pin=([0-9]+)");
    std::size_t size = 0;
    (void)pcre2_pattern_info_8(pin, PCRE2_INFO_SIZE, &size);
    std::memcpy(g_oxelKeyInfoRe[13], pin, size);
    pcre2_code_free_8(pin);
    EXPECT_EQ(masked(text), "<key>a</key> pin=** pin=***x key oldval=a,newval=b");

    const auto before = std::to_array(g_oxelKeyInfoRe);
    g_oxelKeyInfoRe[0] = nullptr; // as if the table had not been built
    EXPECT_EQ(masked(text), "<key>*</key> pin=12 pin=345x key oldval=*,newval=*");
    for (std::size_t i = 0; i < before.size(); ++i) {
        EXPECT_NE(g_oxelKeyInfoRe[i], before[i]) << i;
        pcre2_code_free_8(before[i]);
    }
}

TEST_F(MaskTest, GlobalMatch)
{
    const std::string reversed = "\\K was used in an assertion to set the match start after its "
                                 "end.\nFrom end to start the match was: ab\n";
    const std::tuple<const char *, std::string, const char *, int, std::string> rows[] = {
        {"b(.)", "none", "none", 1, ""},
        {"b(.)(x)?|(c)", "b1b2x cd", "b*b** *d", 0, ""},
        {"(a)?", "xax\r\nax", "x*x\r\n*x", 0, ""},           // empty matches in between
        {"(*CRLF)^|(x$)", "ax\r\nx", "ax\r\n*", 0, ""},      // stepping over a line end of two
        {R"((*ANY)(?=\r)|(\n))", "a\r\nb", "a\r\nb", 0, ""}, // the line end is one step
        {R"((*ANY)(?=\r)|(b))", "a\rb\r", "a\r*\r", 0, ""},
        {R"((*LF)(?=\r)|(\n))", "a\r\nb", "a\r*b", 0, ""},           // here it is two
        {"(*UTF)(?=\xc3\xa9)|(x)", "\xc3\xa9x", "\xc3\xa9*", 0, ""}, // stepping over a character
        {"(*UTF)(?=x)|(y)", "yx", "*x", 0, ""},
        // A start in front of the search, at the end of the text too, behind a long character.
        {R"((*UTF)(?<=\Ka)(b)?)", "a\u00e9aba", "a\u00e9a*a", 0, ""},
        {R"((?=ab\K))", "ab", "ab", 1, reversed},
        {R"((x)|(?=ab\K))", "xab", "*ab", 1, reversed + "Run abandoned\n"},
        {"(*LIMIT_MATCH=1)(a+)+b", "aaaa", "aaaa", 1, ""},
        {"(*NO_START_OPT)(*LIMIT_MATCH=8)^(x)|a+a+c", "xaaaaaaaa", "*aaaaaaaa", 1,
         "Matching error -47\n"},
    };
    pcre2_compile_context_8 *context = pcre2_compile_context_create_8(nullptr);
    pcre2_set_compile_extra_options_8(context, PCRE2_EXTRA_ALLOW_LOOKAROUND_BSK);
    for (const auto &[pattern, before, after, result, output] : rows) {
        SCOPED_TRACE(pattern);
        int error = 0;
        PCRE2_SIZE offset = 0;
        pcre2_code_8 *code = pcre2_compile_8(reinterpret_cast<PCRE2_SPTR8>(pattern),
                                             PCRE2_ZERO_TERMINATED, 0, &error, &offset, context);
        std::string text = before;
        testing::internal::CaptureStdout();
        EXPECT_EQ(REG_RemarkInfo(code, text.data(), static_cast<int>(text.size())), result);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), output);
        EXPECT_EQ(text, after);
        pcre2_code_free_8(code);
    }
    pcre2_compile_context_free_8(context);
}

} // namespace
