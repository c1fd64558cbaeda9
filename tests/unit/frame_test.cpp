// Framing over real sockets: how what is queued leaves in parts, and which messages a reader
// finds in sound and damaged streams, however they are cut into reads.
#include "demo_plugin.h"

#include "conf_plugin/wire.h"

#include <algorithm>
#include <poll.h>
#include <sys/socket.h>

using namespace test;

namespace {

using Frame = DemoFixture;

std::string contents(const conf_buffer_t *buffer)
{
    return {buffer->buf, static_cast<std::size_t>(buffer->used)};
}

// One page, and nothing in it behind the data.
bool idles(const conf_buffer_t *buffer)
{
    return buffer->total == 4088 &&
           std::count(buffer->buf + buffer->used, buffer->buf + 4088, 0) == 4088 - buffer->used;
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
    for (const std::string &body : {large, std::string("<b/>")}) {
        ASSERT_EQ(_cache_message(plugin, node_ptr(parse(body)).get(), odd_bytes::refused), 0);
    }
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
}

// What else it finds in a stream, the fuzz target "stream" compares with a model.
TEST_F(Frame, ReadsNoFurtherThanItShould)
{
    const std::string one = framed("<one/>"), large = framed(std::string(3000, 'y'));
    // Twelve bytes that pass for a whole message are none where more follows.
    for (const take amount : {take::one_message, take::everything}) {
        peer->send(std::string(1020, '\0') + one);
        EXPECT_TRUE(reads(amount));
        EXPECT_EQ(contents(context->recv_buf), one);
        drop_received(get_plugin_from_hash());
        peer->send(std::string(12, '\0'));
        EXPECT_TRUE(reads(amount));
        drop_received(get_plugin_from_hash());
    }
    // A message of 64 MiB is awaited; what announces more is damage, of which the last bytes stay.
    for (const auto &[length, kept] : {std::pair(wire::max_body, 32), {wire::max_body + 1, 12}}) {
        leave_over(head(length) + std::string(20, 'x'));
        EXPECT_FALSE(reads(take::one_message));
        EXPECT_EQ(context->recv_buf->used, kept) << length;
        drop_received(get_plugin_from_hash());
    }
    peer->send(large + one);
    EXPECT_TRUE(reads(take::one_message));
    EXPECT_EQ(contents(context->recv_buf), large);
    drop_received(get_plugin_from_hash());
}

// What is too long, or damaged, is skipped in reads that are large enough, and no further than to
// the next message.
TEST_F(Frame, SkipsWhatItCannotTake)
{
    const std::string one = framed("<one/>"), junk(std::size_t{3} << 20, 'x');
    for (const std::string &announced :
         {head(wire::max_body + 1), head(UINT32_MAX), std::string()}) {
        for (const take amount : {take::one_message, take::everything}) {
            clear_debug_file();
            daemon.play([&](Peer &p) { p.send(announced + junk + one + one); });
            bool ready = reads(amount);
            while (!ready) {
                pollfd sock{context->sock, POLLIN, 0};
                ASSERT_EQ(poll(&sock, 1, 60000), 1);
                ready = reads(amount);
            }
            daemon.finish();
            EXPECT_LT(debug_texts(DBG_INFO).size(), junk.size() / 1024);
            EXPECT_EQ(debug_texts(DBG_WARN).size(), announced.empty() ? 0 : 1);
            const std::string taken = contents(context->recv_buf);
            EXPECT_EQ(taken, amount == take::one_message ? one : one + one);
            drop_received(get_plugin_from_hash());
            EXPECT_EQ(reads(), amount == take::one_message);
            drop_received(get_plugin_from_hash());
        }
    }
}

TEST_F(Frame, CutsOutAndParsesTheFirstMessage)
{
    const std::string bulk(300000, 's'), next = framed("<next/>");
    const std::pair<std::string, std::string> cases[] = {
        {"<a>x\x01y\x1f" + std::string(1, '\0') + "\tz\r\n\x7f</a>", "<a>x y  \tz\n\x7f</a>"},
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
    leave_over(next.substr(0, next.size() - 1));
    for (conf_buffer_t **buffer :
         {static_cast<conf_buffer_t **>(nullptr), &none, &context->recv_buf}) {
        EXPECT_EQ(plugin_parse_message(buffer), nullptr);
    }
    EXPECT_EQ(contents(context->recv_buf), next.substr(0, next.size() - 1));
}

} // namespace
