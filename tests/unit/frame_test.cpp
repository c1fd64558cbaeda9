// Framing over real sockets: how what is queued leaves in parts, and which messages a reader
// finds in sound and damaged streams, however they are cut into reads.
#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/wire.h"
#include "conf_plugin/xml.h"
#include "fake_daemon.h"
#include "memory_limits.h"

#include <algorithm>
#include <fcntl.h>
#include <random>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace test;

namespace {

const std::string magic = "\xff\xba\xdc\xfe";

std::string head(u32_t length, u16_t seq)
{
    const msg_head_t fields = {MSG_MAGIC, length, seq, 0};
    return {reinterpret_cast<const char *>(&fields), sizeof fields};
}

std::string contents(conf_buffer_t *buffer)
{
    return {conf_buffer_data(buffer), static_cast<std::size_t>(conf_buffer_length(buffer))};
}

// One page, and nothing in it behind the data.
bool idles(const conf_buffer_t *buffer)
{
    return buffer->total == 4088 &&
           std::all_of(buffer->buf + buffer->used, buffer->buf + buffer->total,
                       [](char byte) { return byte == 0; });
}

// What the header at the front says, which can be more than a size of this machine.
std::uint64_t message_size(std::string_view stream)
{
    u32_t length = 0;
    stream.copy(reinterpret_cast<char *>(&length), sizeof length, 4);
    return std::uint64_t{length} + sizeof(msg_head_t);
}

// The messages of a stream, found in the whole of it: bytes without magic in front of one are
// skipped, and so is a magic whose length is beyond the limit.
strings messages_in(std::string_view stream)
{
    strings found;
    for (;;) {
        const std::size_t begin = stream.find(magic);
        if (begin == std::string_view::npos || stream.size() - begin < sizeof(msg_head_t)) {
            return found;
        }
        stream.remove_prefix(begin);
        const std::uint64_t size = message_size(stream);
        if (size > 12 + (64U << 20)) {
            stream.remove_prefix(magic.size());
        } else if (size > stream.size()) {
            return found;
        } else {
            found.emplace_back(stream.substr(0, static_cast<std::size_t>(size)));
            stream.remove_prefix(static_cast<std::size_t>(size));
        }
    }
}

class Frame : public PluginFixture {
protected:
    void SetUp() override
    {
        PluginFixture::SetUp();
        start();
        plugin = get_plugin_from_hash();
        context = plugin->plugin_ctxt;
        ASSERT_NE(context, nullptr);
        context->rpc_id = 1;
    }

    void queue(const std::string &body) const
    {
        const node_ptr root(parse(body));
        ASSERT_EQ(_cache_message(plugin, root.get()), 0);
    }

    conf_plugin_data *plugin = nullptr;
    conf_plugin_context_t *context = nullptr;
};

TEST_F(Frame, WritesAtMostTheFirstMessageInAsManyPartsAsTheSocketTakes)
{
    const std::string large = "<a>" + std::string(100000, 'x') + "</a>";
    const int smallest = 1;
    ASSERT_EQ(setsockopt(context->sock, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest), 0);
    queue(large);
    queue("<b/>");
    int parts = 0;
    for (u32_t before = 0; context->rpc_id == 1; ++parts) {
        ASSERT_EQ(peer->received(), strings());
        ASSERT_EQ(_send_message(plugin), 0);
        if (context->rpc_id == 1) {
            ASSERT_GT(context->send_pos, before);
            before = context->send_pos;
            ASSERT_FALSE(send_message_at_once(plugin)) << "the socket is full";
            ASSERT_EQ(_send_message(plugin), 0);
            ASSERT_EQ(context->send_pos, before);
        }
    }
    EXPECT_GT(parts, 2);
    EXPECT_EQ(peer->received(), strings{large});
    EXPECT_EQ(contents(context->send_buf), framed("<b/>")) << "queued while rpc_id was 1";
    EXPECT_TRUE(idles(context->send_buf));
    EXPECT_EQ(context->send_pos, 0U);
    EXPECT_TRUE(send_message_at_once(plugin));
    EXPECT_EQ(peer->received(), strings{"<b/>"});
    EXPECT_EQ(context->rpc_id, 3);
    EXPECT_EQ(debug_texts(DBG_INFO).size(), static_cast<std::size_t>(parts + 1));
    EXPECT_EQ(_send_message(plugin), 0) << "nothing to do";
}

TEST_F(Frame, ADeadPeerIsAnErrorAndLeavesTheQueueToTheCaller)
{
    queue("<a/>");
    context->send_pos = 3;
    shutdown(peer->fd(), SHUT_RD);
    EXPECT_FALSE(send_message_at_once(plugin));
    EXPECT_EQ(debug_lines(), strings());
    EXPECT_EQ(_send_message(plugin), -1);
    EXPECT_EQ(take_errors(), "Send message to confd failed(Broken pipe).");
    EXPECT_EQ(contents(context->send_buf), framed("<a/>"));
    EXPECT_EQ(context->send_pos, 3U);
    drop_unsent(plugin);
    EXPECT_EQ(contents(context->send_buf), "");
    EXPECT_TRUE(idles(context->send_buf));
    EXPECT_EQ(context->send_pos, 0U);
}

TEST_F(Frame, WorksOverPipes)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    queue("<a/>");
    const int sock = std::exchange(context->sock, ends[1]);
    EXPECT_EQ(_send_message(plugin), 0);
    context->sock = ends[0];
    bool_t ready = false;
    EXPECT_EQ(_recv_message(plugin, &ready), 0);
    EXPECT_EQ(contents(context->recv_buf), framed("<a/>"));
    context->sock = sock;
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Frame, AMessageThatCannotBeQueuedWholeIsNotQueuedAtAll)
{
    EXPECT_EQ(_cache_message(plugin, nullptr), -1);
    EXPECT_EQ(contents(context->send_buf), "");

    if (!memory_can_be_limited()) {
        GTEST_SKIP() << "the limits of memory cannot be reached here";
    }
    // A buffer that cannot grow, as its pages are not one mapping to the system: the header still
    // fits, the body does not.
    conf_buffer_t *const ours = context->send_buf;
    void *pages = mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(madvise(static_cast<char *>(pages) + 4096, 4096, MADV_DONTDUMP), 0);
    context->send_buf = static_cast<conf_buffer_t *>(pages);
    context->send_buf->total = 8192 - 8;
    context->send_buf->used = context->send_buf->total - 14;
    const std::string before = contents(context->send_buf);
    const node_ptr root(parse("<a/>"));
    EXPECT_EQ(_cache_message(plugin, root.get()), -1);
    EXPECT_EQ(contents(context->send_buf), before);
    munmap(pages, 8192);
    context->send_buf = ours;
    EXPECT_EQ(take_errors(), "Dump rpc node failed.\nAppend rpc message body to buffer failed.");
}

TEST_F(Frame, FindsTheMessagesOfAnyStreamHoweverItIsCut)
{
    econf_plugin_config_debug(0, 0); // a line for each of thousands of reads tells nothing here
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    const std::string one = framed("<one/>");
    const strings sound = {
        one,        framed("<two>\x01\xff</two>", 7), framed(one),
        head(0, 3), framed("<a>" + magic + "</a>"),   framed(std::string(3000, 'y'))};
    const strings damage = {"ab",
                            "0123456789abcdef",
                            "\xff",
                            "\xff\xba\xdc",
                            magic,
                            std::string(40, '\xff'),
                            head(0xffffffffU, 1),
                            head((64U << 20) + 1, 7),
                            head(64U << 20, 7)}; // may be true: what follows belongs to it
    for (int round = 0; round < 10000 && !HasFailure(); ++round) {
        std::string stream;
        for (unsigned count = 1 + random() % 8; count > 0; --count) {
            const strings &parts = random() % 2 == 0 ? sound : damage;
            stream += parts[random() % parts.size()];
        }
        strings found;
        const take amount = round % 2 == 0 ? take::everything : take::one_message;
        for (std::size_t at = 0; at < stream.size();) {
            const std::size_t size = 1 + random() % (random() % 2 == 0 ? 16 : 2000);
            peer->send(stream.substr(at, size));
            at += size;
            for (bool_t ready = true;;) {
                EXPECT_EQ(_recv_message(plugin, &ready, amount), 0);
                if (!ready) {
                    break;
                }
                const std::string bytes = contents(context->recv_buf);
                const auto length = static_cast<std::size_t>(message_size(bytes));
                EXPECT_TRUE(amount == take::everything || bytes.size() == length);
                found.push_back(bytes.substr(0, length));
                conf_buffer_remove(context->recv_buf, 0, static_cast<int>(length));
            }
        }
        EXPECT_EQ(found, messages_in(stream)) << "round " << round;
        conf_buffer_flush(context->recv_buf);
    }
}

TEST_F(Frame, ReadsNoMoreThanItNeeds)
{
    const std::string zeros(12, '\0');
    const std::string large = framed("<a>" + std::string(2000, 'x') + "</a>");
    const struct {
        std::string arrives;
        bool ready;
        std::string buffered;
        strings log;
    } cases[] = {
        {"", false, "", {}},
        {"abc" + framed("<a/>"), true, framed("<a/>"), {"Read message from confd(19 bytes)."}},
        {"0123456789abcdefghij", false, "89abcdefghij", {"Read message from confd(20 bytes)."}},
        // Twelve bytes are not searched for a magic, so a length of 0 makes them a message.
        {zeros, true, zeros, {"Read message from confd(12 bytes)."}},
        {large + large, true, (large + large).substr(0, 2048),
         strings(2, "Read message from confd(1024 bytes).")},
    };
    for (const auto &c : cases) {
        peer->send(c.arrives);
        bool_t ready = !c.ready;
        clear_debug_file();
        EXPECT_EQ(_recv_message(plugin, &ready), 0);
        EXPECT_EQ(ready, c.ready);
        EXPECT_EQ(contents(context->recv_buf), c.buffered);
        EXPECT_EQ(debug_texts(DBG_INFO), c.log);
        drop_received(plugin);
        EXPECT_TRUE(idles(context->recv_buf));
    }
}

TEST_F(Frame, TheEndOfAStreamIsNoErrorAndABrokenOneEmptiesTheBuffer)
{
    bool_t ready = true;
    peer->send(framed("<a/>").substr(0, 14));
    shutdown(peer->fd(), SHUT_WR);
    EXPECT_EQ(_recv_message(plugin, &ready), 0);
    EXPECT_FALSE(ready);
    EXPECT_EQ(conf_buffer_length(context->recv_buf), 14);

    ASSERT_EQ(write(context->sock, "unread", 6), 6);
    peer->close(); // bytes that nobody read: the connection is reset
    ready = true;
    EXPECT_EQ(_recv_message(plugin, &ready), -1);
    EXPECT_FALSE(ready);
    EXPECT_EQ(conf_buffer_length(context->recv_buf), 0);
    EXPECT_TRUE(idles(context->recv_buf));
    EXPECT_EQ(take_errors(), "Read message from confd failed(Connection reset by peer).");
}

TEST_F(Frame, CutsOutAndParsesTheFirstMessage)
{
    const struct {
        std::string body, printed;
    } cases[] = {
        {"<a>x\x01y\x1f" + std::string(1, '\0') + "\tz\r\n</a>", "<a>x y  \tz\n</a>"},
        {"<a> <b> c </b>\n</a>", "<a><b> c </b></a>"},
        {"<a>\xc3\xbc\x7f</a>", "<a>\xc3\xbc\x7f</a>"},
        {"<a>" + std::string(300000, 's') + "</a>", "<a>" + std::string(300000, 's') + "</a>"},
        {"<a>secret</b>", ""},
        {"", ""},
    };
    for (const auto &c : cases) {
        for (const std::string &rest : {std::string(), framed("<next/>")}) {
            leave_over(framed(c.body) + rest);
            const node_ptr root(plugin_parse_message(&context->recv_buf));
            EXPECT_EQ(list_of(root.get()), c.printed);
            EXPECT_EQ(take_errors(), root ? "" : "Translate rpc message to xml dom tree failed.");
            EXPECT_EQ(contents(context->recv_buf), rest);
            EXPECT_TRUE(idles(context->recv_buf));
            conf_buffer_flush(context->recv_buf);
        }
    }
    EXPECT_TRUE(is_valid_xmlchr(' ')) << "the one byte that is the same when it is replaced";
}

} // namespace
