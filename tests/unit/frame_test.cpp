// Framing over real sockets: how what is queued leaves in parts, and which messages a reader
// finds in sound and damaged streams, however they are cut into reads.
#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/xml.h"
#include "demo_plugin.h"
#include "memory_limits.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <sys/socket.h>
#include <utility>

using namespace test;

namespace {

const std::string magic = "\xff\xba\xdc\xfe";

// A header alone.
std::string head(u32_t length)
{
    const msg_head_t fields = {MSG_MAGIC, length, 7, 0};
    return {reinterpret_cast<const char *>(&fields), sizeof fields};
}

std::string contents(const conf_buffer_t *buffer)
{
    return {buffer->buf, static_cast<std::size_t>(buffer->used)};
}

// One page, and nothing in it behind the data.
bool idles(const conf_buffer_t *buffer)
{
    return buffer->total == 4088 && std::all_of(buffer->buf + buffer->used, buffer->buf + 4088,
                                                [](char byte) { return byte == 0; });
}

using Frame = DemoFixture;

int queue(const std::string &body)
{
    return _cache_message(get_plugin_from_hash(), node_ptr(parse(body)).get());
}

bool reads(take amount = take::everything)
{
    bool_t ready = false;
    return _recv_message(get_plugin_from_hash(), &ready, amount) == 0 && ready;
}

TEST_F(Frame, WritesAtMostTheFirstMessageInAsManyPartsAsTheSocketTakes)
{
    conf_plugin_data *plugin = get_plugin_from_hash();
    const std::string large = "<a>" + std::string(100000, 'x') + "</a>";
    const int smallest = 1;
    ASSERT_EQ(setsockopt(context->sock, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest), 0);
    context->rpc_id = 65535;
    ASSERT_EQ(queue(large), 0);
    ASSERT_EQ(queue("<b/>"), 0);
    int parts = 0;
    for (u32_t before = 0; context->rpc_id == 65535; before = context->send_pos, ++parts) {
        ASSERT_EQ(peer->received(), strings());
        ASSERT_EQ(_send_message(plugin), 0);
        ASSERT_TRUE(context->rpc_id == 1 || context->send_pos > before);
    }
    EXPECT_GT(parts, 1);
    EXPECT_EQ(peer->received(), strings{large});
    EXPECT_EQ(peer->head().seq, 65534);
    EXPECT_EQ(contents(context->send_buf), framed("<b/>", 65534));
    EXPECT_TRUE(idles(context->send_buf));

    int ends[2]; // a pipe does as well
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    const int sock = std::exchange(context->sock, ends[1]);
    EXPECT_TRUE(send_message_at_once(plugin));
    context->sock = sock;
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(context->rpc_id, 2);
}

TEST_F(Frame, AMessageThatCannotBeQueuedWholeIsNotQueuedAtAll)
{
    conf_buffer_t *const full =
        largest_buffers_fit() ? reserve_buffer(std::int64_t{INT_MAX} + 1, 14) : nullptr;
    if (full == nullptr) {
        GTEST_SKIP() << "the limits of memory cannot be reached here";
    }
    conf_buffer_t *const ours = std::exchange(context->send_buf, full);
    const int before = full->used;
    EXPECT_EQ(queue("<a/>"), -1) << "only the header fits";
    EXPECT_EQ(full->used, before);
    context->send_buf = ours;
    release_buffer(full);
    EXPECT_EQ(take_errors(), "Append rpc message body to buffer failed.");
}

TEST_F(Frame, FindsTheMessagesOfAnyStreamHoweverItIsCut)
{
    const std::string one = framed("<one/>"), two = framed("<two>" + magic + "\x01\xff</two>", 7);
    const std::string nested = framed(one), empty = head(0), large = framed(std::string(3000, 'y'));
    const std::string zeros(12, '\0');
    const std::string lies = head(0xffffffffU) + head((64U << 20) + 1); // beyond the limit
    const struct {
        std::string stream;
        strings messages;
    } cases[] = {
        {one + two + nested + empty + large, {one, two, nested, empty, large}},
        {"ab" + one + "\xff\xba\xdc" + two + magic + magic + empty, {one, two, empty}},
        {"0123456789abcdef\xff" + nested + std::string(40, '\xff') + large, {nested, large}},
        {lies + one + lies + "abc" + two + magic.substr(0, 3), {one, two}},
        {one + head(64U << 20) + two, {one}}, // may be true: what follows belongs to it
        {zeros, {zeros}},                     // twelve bytes are not searched for a magic
    };
    for (const auto &c : cases) {
        for (const bool whole : {false, true}) {
            for (const take amount : {take::everything, take::one_message}) {
                SCOPED_TRACE(::testing::Message() << &c - cases << whole);
                strings found;
                for (std::size_t at = 0; at < c.stream.size(); ++at) {
                    peer->send(whole ? at == 0 ? c.stream : "" : c.stream.substr(at, 1));
                    while (reads(amount) && found.size() < c.messages.size()) {
                        const std::string bytes = contents(context->recv_buf);
                        const std::size_t size = c.messages[found.size()].size();
                        EXPECT_TRUE(amount == take::everything || bytes.size() == size);
                        found.push_back(bytes.substr(0, size));
                        conf_buffer_remove(context->recv_buf, 0, static_cast<int>(size));
                    }
                }
                EXPECT_EQ(found, c.messages);
                EXPECT_FALSE(reads(amount));
                drop_received(get_plugin_from_hash());
                EXPECT_TRUE(idles(context->recv_buf));
            }
        }
    }
    clear_debug_file();
    peer->send(large + large);
    EXPECT_TRUE(reads());
    EXPECT_EQ(debug_texts(DBG_INFO), strings(3, "Read message from confd(1024 bytes)."));
}

TEST_F(Frame, CutsOutAndParsesTheFirstMessage)
{
    const std::string bulk(300000, 's'), next = framed("<next/>");
    const std::pair<std::string, std::string> cases[] = {
        {"<a>x\x01y\x1f" + std::string(1, '\0') + "\tz\r\n</a>", "<a>x y  \tz\n</a>"},
        {"<a>\xc3\xbc\x7f</a>", "<a>\xc3\xbc\x7f</a>"},
        {"<a>" + bulk + "</a>", "<a>" + bulk + "</a>"},
        {"<a>secret</b>", ""},
        {"", ""},
    };
    for (const auto &[body, printed] : cases) {
        leave_over(framed(body) + next);
        EXPECT_EQ(list_of(node_ptr(plugin_parse_message(&context->recv_buf)).get()), printed);
        EXPECT_EQ(take_errors().empty(), !printed.empty());
        EXPECT_EQ(contents(context->recv_buf), next);
        EXPECT_TRUE(idles(context->recv_buf));
        conf_buffer_flush(context->recv_buf);
    }
    conf_buffer_t *none = nullptr;
    EXPECT_EQ(plugin_parse_message(nullptr), nullptr);
    EXPECT_EQ(plugin_parse_message(&none), nullptr);
    leave_over(next.substr(0, next.size() - 1));
    EXPECT_EQ(plugin_parse_message(&context->recv_buf), nullptr);
    EXPECT_EQ(contents(context->recv_buf), next.substr(0, next.size() - 1));
    conf_buffer_flush(context->recv_buf);
}

} // namespace
