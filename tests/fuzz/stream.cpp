// Any bytes on a stream, in any pieces: the reader must find the messages that a plain model of the
// resynchronisation finds, and the parser must make of each what libxml2 alone makes of it.
#include "conf_plugin/plugin_internal.h"
#include "fuzz.h"

#include <libxml/parser.h>
#include <sys/socket.h>
#include <unistd.h>

using fuzz::require;

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
    std::size_t wanted(take amount) const
    {
        return amount == take::everything ? 1024
               : bytes.size() < 12        ? 12 - bytes.size()
               : is_damaged()             ? 1
                              : std::min<std::size_t>(1024, field(4) + 12 - bytes.size());
    }
    std::string cut()
    {
        std::string body = bytes.substr(12, field(4));
        bytes.erase(0, 12 + body.size());
        return body;
    }
};

std::string printed(xmlNode *node)
{
    xmlBuffer *buffer = xmlBufferCreate();
    std::string text;
    if (node != nullptr && xmlNodeDump(buffer, nullptr, node, 0, 0) > 0) {
        text = reinterpret_cast<const char *>(xmlBufferContent(buffer));
    }
    xmlBufferFree(buffer);
    return text;
}

std::string parsed_plainly(std::string body)
{
    std::replace_if(
        body.begin(), body.end(), [](char byte) { return is_valid_xmlchr(byte) == 0; }, ' ');
    xmlDoc *doc = xmlReadMemory(body.data(), static_cast<int>(body.size()), nullptr, "utf-8",
                                XML_PARSE_NOBLANKS | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    xmlNode *root = xmlDocGetRootElement(doc);
    xmlNode *copy = root == nullptr ? nullptr : xmlCopyNode(root, 1);
    xmlFreeDoc(doc);
    const std::string text = printed(copy);
    xmlFreeNode(copy);
    return text;
}

std::string piece(fuzz::input &in)
{
    static const fuzz::forms bodies = {
        "<m>%n</m>", "%x", "<!DOCTYPE m [<!ENTITY e '<a>x</a>'>]><m xml:lang='x'>&e;%x</m>"};
    const std::size_t kind = in.below(4);
    return kind == 0   ? in.stretched(in.message(bodies))
           : kind == 1 ? in.stretched(in.pick("\xff\xba\xdc\xfe|\xff|\xff\xba\xdc"))
           : kind == 2 ? std::string(in.below(20), '\0')
                       : in.text(64);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const take amount = in.ConsumeBool() ? take::one_message : take::everything;
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0, "no sockets");
    conf_plugin_context_t context{};
    context.sock = ends[0];
    context.recv_buf = conf_buffer_create(0);
    conf_plugin_data plugin = {&context, nullptr};
    model expected;
    while (!in.ended()) {
        const std::string sent = piece(in).substr(0, 50000); // fits the socket
        const ssize_t taken = send(ends[1], sent.data(), sent.size(), 0);
        require(taken == static_cast<ssize_t>(sent.size()), "bytes are left over in the socket");
        std::size_t at = 0;
        for (bool_t ready = true; ready;) {
            expected.resynchronise();
            while (!expected.is_whole() && at < sent.size()) {
                const std::string part = sent.substr(at, expected.wanted(amount));
                at += part.size();
                expected.bytes += part;
                expected.resynchronise();
            }
            require(_recv_message(&plugin, &ready, amount) == 0, "the reader fails");
            require((ready != 0) == expected.is_whole(), "another message is ready");
            const std::string_view kept(context.recv_buf->buf,
                                        static_cast<std::size_t>(context.recv_buf->used));
            require(kept == expected.bytes, "other bytes are kept");
            if (ready) {
                const std::string body = expected.cut();
                xmlNode *root = plugin_parse_message(&context.recv_buf);
                require(printed(root) == parsed_plainly(body), "another document", body);
                xmlFreeNode(root);
            }
        }
    }
    conf_buffer_destroy(context.recv_buf);
    close(ends[0]);
    close(ends[1]);
    return 0;
}
