// What the fuzz targets share: private namespaces, the complaint that ends a run, and texts, paths,
// documents and messages that are made from the bytes of an input.
#ifndef CONFSVC_FUZZ_H
#define CONFSVC_FUZZ_H

#include "conf_debug.h"
#include "conf_def.h"
#include "sandbox.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// Freed memory is kept from use for long enough, without touching fresh pages all the time.
extern "C" const char *__asan_default_options()
{
    return "quarantine_size_mb=8:allocator_may_return_null=1";
}

// The library's fixed paths, sockets and both logs belong to this process alone from here on. Every
// target includes this header once. Not inline: only libFuzzer refers to it.
extern "C" int LLVMFuzzerInitialize(int *count, char ***arguments)
{
    sandbox::options options;
    for (int i = 1; i < *count; ++i) {
        if ((*arguments)[i][0] != '-') {
            options.keep.emplace_back((*arguments)[i]);
        }
    }
    std::string error;
    if (!sandbox::enter(options, error)) {
        std::fprintf(stderr, "no sandbox for the target: %s\n", error.c_str());
        std::exit(1);
    }
    return std::freopen("/dev/null", "w", stdout) == nullptr ? 1 : 0;
}

namespace fuzz {

inline void require(bool holds, const char *what, const std::string &detail = "")
{
    if (!holds) {
        std::fprintf(stderr, "FAULT: %s\n%s\n", what, detail.c_str());
        std::abort();
    }
}

inline std::string framed(const std::string &body, std::size_t length, int sequence = 0)
{
    const msg_head_t head = {MSG_MAGIC, static_cast<u32_t>(length), static_cast<u16_t>(sequence),
                             0};
    return std::string(reinterpret_cast<const char *>(&head), sizeof head) + body;
}

// Forms of messages, see input::filled().
using forms = std::vector<std::string>;

inline std::string rpc(const std::string &method, const std::string &params, const char *id = "%i")
{
    return "<rpc><method>" + method + "</method><params>" + params + "</params><id>" + id +
           "</id></rpc>";
}
inline std::string reply(const std::string &content, const char *id = "%i")
{
    return "<reply>" + content + "<id>" + id + "</id></reply>";
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
        std::size_t at = 0;
        const auto bars = static_cast<std::size_t>(std::count(texts.begin(), texts.end(), '|'));
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
            if (kind == 0) {
                made += pick("x| |&amp;|&#13;|<!--x-->|<![CDATA[<]]>|<?p x?>|&e;|\x01|\xc3\xa9|1");
                continue;
            }
            if (kind == 1) {
                made += ConsumeRandomLengthString(12);
                continue;
            }
            std::string inner = document(depth + 1);
            const std::string attribute =
                pick("|| xmlns='urn:a'| xmlns:p='urn:q'| k='v'| xml:lang='x'"
                     "| xmlns='http://x/y z'| xmlns='u:'");
            for (int times = rarely(32) ? 300 : 1; times > 0; --times) {
                inner = "<" + name + attribute + ">" + inner + "</" + name + ">";
            }
            made += inner;
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
            damage(body);
        }
        std::size_t length = body.size();
        if (rarely(16)) {
            length = rarely(2) ? ConsumeIntegral<u32_t>() : length + 1;
        }
        std::string made = framed(body, length);
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
    void damage(std::string &body)
    {
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
};

} // namespace fuzz

#endif
