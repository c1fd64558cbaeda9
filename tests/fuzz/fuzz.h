// What the fuzz targets share: the end of a run with the first condition that does not hold, and
// texts, paths, documents and messages that are made from the bytes of an input.
//
// Speed counts: a target is as good as the number of inputs that it takes. What every input needs
// is made once, and what costs much is left to the few inputs that are lavish.
#ifndef CONFSVC_FUZZ_H
#define CONFSVC_FUZZ_H

#include "fake_daemon.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <span>
#include <string_view>

// Ends the run, with the input kept, unless the condition holds. What is to be shown then follows.
#define MUST(condition, ...)                                                                       \
    ((condition) ? void() : fuzz::fail(__FILE__, __LINE__, #condition, {__VA_ARGS__}))

namespace fuzz {

[[noreturn]] inline void fail(const char *file, int line, const char *condition,
                              std::initializer_list<std::string> shown)
{
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
    for (const std::string &each : shown) {
        std::fprintf(stderr, "%s\n", each.c_str());
    }
    std::abort();
}

// The last byte of an input that may cost much, and of one that only has the debug file or the
// trace written: the mutator sees to it that these are few.
inline constexpr std::uint8_t lavish = 1;
inline constexpr std::uint8_t verbose = 2;

// Forms of messages, see input::filled().
using forms = std::vector<std::string>;

inline std::string rpc(const std::string &method, const std::string &params, const char *id = "%i")
{
    return test::rpc(method, "<params>" + params + "</params>", id);
}

// An input that has come to its end gives zeros, so 0 is always the harmless choice.
class input : public FuzzedDataProvider {
public:
    input(const std::uint8_t *data, std::size_t size)
        : FuzzedDataProvider(data, size - (size > 0 ? 1 : 0)), mark_(size > 0 ? data[size - 1] : 0)
    {
    }

    std::size_t below(std::size_t count)
    {
        return ConsumeIntegralInRange<std::size_t>(0, count - 1);
    }
    bool rarely(std::size_t count) { return below(count) == count - 1; }
    // The same for what costs much, and for what is written.
    bool seldom(std::size_t count) { return rarely(count) && mark_ == lavish; }
    bool writes(std::size_t count) { return rarely(count) && mark_ != 0; }
    [[nodiscard]] bool ended() { return remaining_bytes() == 0; }

    // One of the texts between the bars.
    std::string_view pick(std::string_view texts)
    {
        const auto bars = static_cast<std::size_t>(std::count(texts.begin(), texts.end(), '|'));
        std::size_t at = 0;
        for (std::size_t left = below(bars + 1); left > 0; --left) {
            at = texts.find('|', at) + 1;
        }
        return texts.substr(at, texts.find('|', at) - at);
    }
    // Now and then, once in an input, very long: what takes more than linear time is then noticed.
    std::string stretched(std::string piece)
    {
        if (!is_stretched_ && seldom(24)) {
            is_stretched_ = true;
            piece = repeated(piece, piece.empty() ? 0 : 1 + 149999 / piece.size());
        }
        return piece;
    }
    std::string text(std::size_t most) { return stretched(ConsumeRandomLengthString(most)); }
    std::string number()
    {
        return std::string(
            pick("1|2|3|0|4|-1|17|16385|65535|2147483648|4294967297|99999999999999999999| 5x|"));
    }
    std::string path()
    {
        std::string made;
        for (std::size_t left = below(8); left > 0; --left) {
            made += stretched(std::string(
                pick("/a:b|/c|/name|/d:e|/|:|[name=\"x\"]|[id='1']|[2]|[k=\"v\",l=\"w\"]"
                     "|[.=\"y\"]|[k=x]|[m:k=\"\\\"\"]|[?=\"z\"]|[|]|=\"|\"|\\|,|a|..")));
        }
        return made;
    }
    std::string document(int depth = 0)
    {
        std::string made;
        for (std::size_t left = below(4); left > 0 && depth < 8; --left) {
            const std::string_view name = pick("b|c|name|id|p:d|data|path|next|error");
            const std::size_t kind = below(6);
            if (kind == 0) {
                made += pick("x| |&amp;|&#13;|<!--x-->|<![CDATA[<]]>|<?p x?>|&e;|\x01|\xc3\xa9|1");
            } else if (kind == 1) {
                made += ConsumeRandomLengthString(12);
            } else {
                const std::string content = document(depth + 1);
                const std::string_view attribute =
                    pick("|| xmlns='urn:a'| xmlns:p='urn:q'| k='v'| xml:lang='x'"
                         "| xmlns='http://x/y z'| xmlns='u:'");
                const std::size_t times = seldom(32) ? 300 : 1;
                made += repeated(joined({"<", name, attribute, ">"}), times);
                made += content;
                made += repeated(joined({"</", name, ">"}), times);
            }
        }
        return made;
    }

    // A form with %n a number, %p a path, %x a document, %t a text and %i the id filled in.
    std::string filled(std::string_view form, std::string_view id = "")
    {
        std::string made;
        for (;;) {
            const std::size_t sign = form.find('%');
            made += form.substr(0, sign);
            if (sign == std::string_view::npos) {
                return made;
            }
            const char kind = form[sign + 1];
            made += kind == 'n'   ? number()
                    : kind == 'p' ? path()
                    : kind == 'x' ? document()
                    : kind == 't' ? word()
                    : rarely(16)  ? number()
                                  : std::string(id);
            form.remove_prefix(sign + 2);
        }
    }

    // The bytes of a message: one of the forms, mostly as it should be.
    std::string message(std::span<const std::string> all, std::string_view id = "")
    {
        std::string body = filled(all[below(all.size())], id);
        while (rarely(6)) {
            const std::size_t at = below(body.size() + 1);
            const std::size_t count = below(16);
            const std::size_t how = below(3);
            if (how == 0) {
                body.erase(at, count);
            } else {
                body.insert(at, how == 1 ? ConsumeRandomLengthString(16)
                                         : body.substr(below(body.size() + 1), 4 * count));
            }
        }
        std::string made = test::framed(body);
        if (rarely(16)) {
            const auto next = static_cast<u32_t>(body.size()) + 1;
            const u32_t length = rarely(2) ? ConsumeIntegral<u32_t>() : next;
            std::memcpy(made.data() + offsetof(msg_head_t, length), &length, sizeof length);
        }
        if (rarely(12)) {
            made.insert(0, text(20));
        }
        if (rarely(12)) {
            made.resize(below(made.size() + 1));
        }
        return made;
    }

private:
    std::uint8_t mark_;
    bool is_stretched_ = false;

    static std::string joined(std::initializer_list<std::string_view> parts)
    {
        std::string made;
        for (const std::string_view part : parts) {
            made += part;
        }
        return made;
    }
    static std::string repeated(const std::string &piece, std::size_t times)
    {
        std::string made;
        made.reserve(piece.size() * times);
        for (; times > 0; --times) {
            made += piece;
        }
        return made;
    }
    std::string word()
    {
        std::string made = text(40);
        const auto is_special = [](char c) { return c == '<' || c == '&' || (c & 0x80) != 0; };
        std::replace_if(made.begin(), made.end(), is_special, '_');
        return made;
    }
};

} // namespace fuzz

#endif
