// What the fuzz targets share: private namespaces, the end of a run with the first expectation that
// fails, and texts, paths, documents and messages that are made from the bytes of an input.
#ifndef CONFSVC_FUZZ_H
#define CONFSVC_FUZZ_H

#include "fake_daemon.h"
#include "sandbox.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <libxml/xmlerror.h>

// Freed memory is kept from use for long enough, without touching fresh pages all the time.
extern "C" const char *__asan_default_options()
{
    return "quarantine_size_mb=8:allocator_may_return_null=1";
}

// The library's fixed paths, sockets and both logs belong to this process alone from here on. Every
// target includes this header once. Not inline: only libFuzzer refers to it.
extern "C" int LLVMFuzzerInitialize(int *count, char ***arguments)
{
    GTEST_FLAG_SET(throw_on_failure, true);                        // which nobody catches
    xmlSetStructuredErrorFunc(nullptr, [](void *, xmlError *) {}); // malformed texts are many
    sandbox::options options;
    options.keep.assign(*arguments + 1, *arguments + *count);
    std::string error;
    EXPECT_TRUE(sandbox::enter(options, error)) << error;
    return std::freopen("/dev/null", "w", stdout) == nullptr ? 1 : 0;
}

namespace fuzz {

// Forms of messages, see input::filled().
using forms = std::vector<std::string>;

inline std::string rpc(const std::string &method, const std::string &params, const char *id = "%i")
{
    return test::rpc(method, "<params>" + params + "</params>", id);
}

// An input that has come to its end gives zeros, so 0 is always the harmless choice.
class input : public FuzzedDataProvider {
public:
    using FuzzedDataProvider::FuzzedDataProvider;

    std::size_t below(std::size_t count)
    {
        return ConsumeIntegralInRange<std::size_t>(0, count - 1);
    }
    bool rarely(std::size_t count) { return below(count) == count - 1; }
    [[nodiscard]] bool ended() { return remaining_bytes() == 0; }

    // One of the texts between the bars.
    std::string pick(const std::string &texts)
    {
        const auto bars = static_cast<std::size_t>(std::count(texts.begin(), texts.end(), '|'));
        std::size_t at = 0;
        for (std::size_t left = below(bars + 1); left > 0; --left) {
            at = texts.find('|', at) + 1;
        }
        return texts.substr(at, texts.find('|', at) - at);
    }
    // Now and then, once in an input, very long: what takes more than linear time is then noticed.
    std::string stretched(const std::string &piece)
    {
        std::string made = piece;
        if (!is_stretched_ && rarely(24)) {
            is_stretched_ = true;
            while (!piece.empty() && made.size() < 150000) {
                made += piece;
            }
        }
        return made;
    }
    std::string text(std::size_t most) { return stretched(ConsumeRandomLengthString(most)); }
    std::string number()
    {
        return pick("1|2|3|0|4|-1|17|16385|65535|2147483648|4294967297|99999999999999999999| 5x|");
    }
    std::string path()
    {
        std::string made;
        for (std::size_t left = below(8); left > 0; --left) {
            made +=
                stretched(pick("/a:b|/c|/name|/d:e|/|:|[name=\"x\"]|[id='1']|[2]|[k=\"v\",l=\"w\"]"
                               "|[.=\"y\"]|[k=x]|[m:k=\"\\\"\"]|[?=\"z\"]|[|]|=\"|\"|\\|,|a|.."));
        }
        return made;
    }
    std::string document(int depth = 0)
    {
        std::string made;
        for (std::size_t left = below(4); left > 0 && depth < 8; --left) {
            const std::string name = pick("b|c|name|id|p:d|data|path|next|error");
            const std::size_t kind = below(6);
            std::string more =
                kind == 0
                    ? pick("x| |&amp;|&#13;|<!--x-->|<![CDATA[<]]>|<?p x?>|&e;|\x01|\xc3\xa9|1")
                : kind == 1 ? ConsumeRandomLengthString(12)
                            : document(depth + 1);
            if (kind > 1) {
                const std::string attribute =
                    pick("|| xmlns='urn:a'| xmlns:p='urn:q'| k='v'| xml:lang='x'"
                         "| xmlns='http://x/y z'| xmlns='u:'");
                for (int times = rarely(32) ? 300 : 1; times > 0; --times) {
                    more = "<" + name + attribute + ">" + more + "</" + name + ">";
                }
            }
            made += more;
        }
        return made;
    }

    // A form with %n a number, %p a path, %x a document, %t a text and %i the id filled in.
    std::string filled(const std::string &form, const std::string &id = "")
    {
        std::string made;
        for (std::size_t i = 0; i < form.size(); ++i) {
            const char kind = form[i] == '%' ? form[++i] : '\0';
            made += kind == 'n'   ? number()
                    : kind == 'p' ? path()
                    : kind == 'x' ? document()
                    : kind == 't' ? word()
                    : kind == 'i' ? (rarely(16) ? number() : id)
                                  : std::string(1, form[i]);
        }
        return made;
    }

    // The bytes of a message: one of the forms, mostly as it should be.
    std::string message(const forms &all, const std::string &id = "")
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
    bool is_stretched_ = false;

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
