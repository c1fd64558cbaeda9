// Any bytes on a stream, in any pieces: the reader must find the messages that a plain model of the
// resynchronisation finds, and the parser must make of each what libxml2 alone makes of it.
#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/xml.h"
#include "fuzz.h"

#include <array>
#include <sys/socket.h>
#include <utility>

namespace {

constexpr u32_t longest_body = 64U << 20;

struct model {
    std::string bytes;

    u32_t field(std::size_t at) const
    {
        u32_t value = 0;
        std::memcpy(&value, bytes.data() + at, sizeof value);
        return value;
    }
    bool is_damaged() const { return field(0) != MSG_MAGIC || field(4) > longest_body; }
    void resynchronise()
    {
        while (bytes.size() > 12 && is_damaged()) {
            bytes.erase(0, std::min(bytes.find("\xff\xba\xdc\xfe", 1), bytes.size() - 12));
        }
    }
    bool is_whole() const { return bytes.size() >= 12 && bytes.size() - 12 >= field(4); }
    bool is_found() const { return is_whole() && !is_damaged(); }
    // Takes over all that has arrived: the reader has to find the same, however far it reads.
    void read_from(std::string_view &arrived)
    {
        resynchronise();
        bytes += std::exchange(arrived, {});
        resynchronise();
    }
};

std::string parsed_plainly(std::string body)
{
    std::replace_if(
        body.begin(), body.end(), [](char byte) { return is_valid_xmlchr(byte) == 0; }, ' ');
    return test::list_of(node_ptr(test::parse(body)).get());
}

std::array<int, 2> stream_of_bytes()
{
    std::array<int, 2> ends{};
    MUST(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends.data()) == 0);
    return ends;
}

std::string piece(fuzz::input &in)
{
    static const fuzz::forms bodies = {
        "<m>%n</m>", "%x", "<!DOCTYPE m [<!ENTITY e '<a>x</a>'>]><m xml:lang='x'>&e;%x</m>"};
    const std::size_t kind = in.below(4);
    return kind == 0   ? in.stretched(in.message(bodies))
           : kind == 1 ? in.stretched(std::string(in.pick("\xff\xba\xdc\xfe|\xff|\xff\xba\xdc")))
           : kind == 2 ? std::string(in.below(20), '\0')
                       : in.text(64);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const take amount = in.ConsumeBool() ? take::one_message : take::everything;
    static const std::array<int, 2> ends = stream_of_bytes(); // empty behind each input
    conf_plugin_context_t context{};
    context.sock = ends[0];
    context.recv_buf = conf_buffer_create(0);
    conf_plugin_data plugin = {&context, nullptr};
    model expected;
    while (!in.ended()) {
        const std::string sent = piece(in).substr(0, 50000); // fits the socket
        std::string_view left = sent;
        MUST(send(ends[1], sent.data(), sent.size(), 0) == static_cast<ssize_t>(sent.size()));
        for (bool_t ready = true; ready;) {
            expected.read_from(left);
            MUST(_recv_message(&plugin, &ready, amount) == 0);
            MUST((ready != 0) == expected.is_whole());
            const std::string_view buffered(context.recv_buf->buf,
                                            static_cast<std::size_t>(context.recv_buf->used));
            const std::string_view all = expected.bytes;
            const std::string_view first =
                all.substr(0, ready ? 12U + expected.field(4) : all.size());
            MUST(amount == take::one_message || !ready ? buffered == first
                                                       : buffered.starts_with(first),
                 std::string(buffered), expected.bytes);
            if (ready) {
                const std::string body = expected.bytes.substr(12, expected.field(4));
                expected.bytes.erase(0, 12 + body.size());
                const node_ptr root(plugin_parse_message(&context.recv_buf));
                MUST(test::list_of(root.get()) == parsed_plainly(body), body);
            }
        }
    }
    conf_buffer_destroy(context.recv_buf);
    return 0;
}
