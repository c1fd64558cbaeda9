// Masking of texts made of what the patterns look for, against PCRE2 that runs the exported
// patterns one after the other.
#include "conf_mask.h"
#include "fuzz.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

namespace {

std::string text_from(fuzz::input &in)
{
    static const std::string tokens[] = {"password", "cipher",    "psk",    "authentication-text",
                                         "key",      "text-name", "secret", "\"",
                                         ": ",       ">",         "</",     "oldval=",
                                         ",newval=", "\n",        "\r",     ","};
    std::string text;
    while (!in.ended()) {
        const auto byte = in.ConsumeIntegral<std::uint8_t>();
        text += byte < 128 ? tokens[byte % 16] : std::string(1, static_cast<char>(byte - 128));
    }
    return text;
}

// False when PCRE2 gives up.
bool mask_plainly(const pcre2_code_8 *code, std::string &text)
{
    static pcre2_match_context_8 *const limited = pcre2_match_context_create_8(nullptr);
    static pcre2_match_data_8 *const data = pcre2_match_data_create_8(4, nullptr);
    pcre2_set_match_limit_8(limited, 200000);
    const PCRE2_SIZE *offsets = pcre2_get_ovector_pointer_8(data);
    for (PCRE2_SIZE from = 0;; from = offsets[1]) { // no pattern matches an empty text
        const int count = pcre2_match_8(code, reinterpret_cast<PCRE2_SPTR8>(text.data()),
                                        text.size(), from, 0, data, limited);
        if (count <= 0) {
            return count == PCRE2_ERROR_NOMATCH;
        }
        for (int group = 1; group < count; ++group) {
            std::fill(text.begin() + static_cast<std::ptrdiff_t>(offsets[2 * group]),
                      text.begin() + static_cast<std::ptrdiff_t>(offsets[2 * group + 1]), '*');
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const bool is_long = in.rarely(8);
    const std::string text = is_long ? in.stretched(text_from(in)) : text_from(in);
    std::string masked = text;
    REG_RemarkKeyInfo(masked.data(), static_cast<int>(masked.size()));
    MUST(std::equal(text.begin(), text.end(), masked.begin(), masked.end(),
                    [](char was, char is) { return is == was || is == '*'; }));
    std::string expected = text;
    bool is_known = text.size() < 500;
    for (const pcre2_real_code_8 *code : g_oxelKeyInfoRe) {
        is_known = is_known && mask_plainly(code, expected);
    }
    MUST(!is_known || masked == expected, text, masked);
    return 0;
}
