// Framing over real sockets: what is queued, how it leaves in parts, and which messages a reader
// finds in sound and damaged streams, however they are cut into reads.
#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/wire.h"
#include "test_support.h"

#include <algorithm>
#include <fcntl.h>
#include <random>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using texts = std::vector<std::string>;

const std::string magic = "\xff\xba\xdc\xfe";

std::string head(u32_t length, u16_t seq)
{
    const msg_head_t fields = {MSG_MAGIC, length, seq, 0};
    return {reinterpret_cast<const char *>(&fields), sizeof fields};
}

std::string framed(const std::string &body, u16_t seq = 0)
{
    return head(static_cast<u32_t>(body.size()), seq) + body;
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

// What the header at the front says.
std::size_t message_size(std::string_view stream)
{
    u32_t length = 0;
    stream.copy(reinterpret_cast<char *>(&length), sizeof length, 4);
    return sizeof(msg_head_t) + length;
}

// The messages of a stream, found in the whole of it: bytes without magic in front of one are
// skipped, and so is a magic whose length is beyond the limit.
texts messages_in(std::string_view stream)
{
    texts found;
    for (;;) {
        const std::size_t begin = stream.find(magic);
        if (begin == std::string_view::npos || stream.size() - begin < sizeof(msg_head_t)) {
            return found;
        }
        stream.remove_prefix(begin);
        const std::size_t size = message_size(stream);
        if (size > 12 + (64U << 20)) {
            stream.remove_prefix(magic.size());
        } else if (size > stream.size()) {
            return found;
        } else {
            found.emplace_back(stream.substr(0, size));
            stream.remove_prefix(size);
        }
    }
}

class Frame : public test::Fixture {
protected:
    void SetUp() override
    {
        Fixture::SetUp();
        context = static_cast<conf_plugin_context_t *>(std::calloc(1, sizeof *context));
        context->rpc_id = 1;
        context->send_buf = conf_buffer_create(wire::buffer_room);
        context->recv_buf = conf_buffer_create(wire::buffer_room);
        plugin.plugin_ctxt = context;
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
        context->sock = ends[0];
        peer = ends[1];
    }

    void TearDown() override
    {
        close(context->sock);
        close(peer);
        conf_buffer_destroy(context->send_buf);
        conf_buffer_destroy(context->recv_buf);
        std::free(context);
        Fixture::TearDown();
    }

    void queue(const std::string &body)
    {
        xmlNode *root = test::parse(body);
        ASSERT_EQ(_cache_message(&plugin, root), 0);
        xmlFreeNode(root);
    }

    void arrive(const std::string &bytes) const
    {
        ASSERT_EQ(write(peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    [[nodiscard]] std::string received_by_peer() const
    {
        std::string bytes(1 << 20, '\0');
        const ssize_t count = read(peer, bytes.data(), bytes.size());
        bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return bytes;
    }

    // Sends a stream piece by piece and takes every message out as soon as it is ready.
    texts read_in_pieces(const texts &pieces, take amount)
    {
        texts found;
        for (const std::string &piece : pieces) {
            arrive(piece);
            for (;;) {
                bool_t ready = true;
                EXPECT_EQ(_recv_message(&plugin, &ready, amount), 0);
                if (!ready) {
                    break;
                }
                const std::string bytes = contents(context->recv_buf);
                const std::size_t size = message_size(bytes);
                EXPECT_TRUE(amount == take::everything || bytes.size() == size) << "took too much";
                found.push_back(bytes.substr(0, size));
                conf_buffer_remove(context->recv_buf, 0, static_cast<int>(size));
            }
        }
        conf_buffer_flush(context->recv_buf);
        return found;
    }

    conf_plugin_data plugin{};
    conf_plugin_context_t *context = nullptr;
    int peer = -1;
};

TEST_F(Frame, QueuesHeaderAndBodyAndCountsMessages)
{
    const std::string body = "<rpc><method>pull</method><params/><id>12</id></rpc>";
    const struct {
        u16_t rpc_id, seq, next;
    } cases[] = {{12, 11, 13}, {1, 0, 2}, {65535, 65534, 1}};
    for (const auto &c : cases) {
        context->rpc_id = c.rpc_id;
        queue(body);
        EXPECT_EQ(contents(context->send_buf), framed(body, c.seq));
        EXPECT_EQ(_send_message(&plugin), 0);
        EXPECT_EQ(received_by_peer(), framed(body, c.seq));
        EXPECT_EQ(context->rpc_id, c.next);
        EXPECT_TRUE(idles(context->send_buf));
    }
    EXPECT_EQ(head(52, 11), std::string("\xff\xba\xdc\xfe\x34\0\0\0\x0b\0\0\0", 12));
    EXPECT_EQ(_send_message(&plugin), 0) << "nothing to do";
    EXPECT_EQ(test::debug_texts(DBG_INFO), texts(3, "Send message to confd."));
}

TEST_F(Frame, WritesAtMostTheFirstMessageInAsManyPartsAsTheSocketTakes)
{
    const std::string large = "<a>" + std::string(100000, 'x') + "</a>";
    const int smallest = 1;
    ASSERT_EQ(setsockopt(context->sock, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest), 0);
    queue(large);
    queue("<b/>");
    std::string arrived;
    int parts = 0;
    for (u32_t before = 0; context->rpc_id == 1; ++parts) {
        ASSERT_LT(parts, 1000);
        ASSERT_EQ(_send_message(&plugin), 0);
        if (context->rpc_id == 1) {
            ASSERT_GT(context->send_pos, before);
            before = context->send_pos;
            ASSERT_FALSE(send_message_at_once(&plugin)) << "the socket is full";
            ASSERT_EQ(_send_message(&plugin), 0);
            ASSERT_EQ(context->send_pos, before);
        }
        arrived += received_by_peer();
    }
    EXPECT_GT(parts, 2);
    EXPECT_EQ(arrived, framed(large));
    EXPECT_EQ(contents(context->send_buf), framed("<b/>")) << "queued while rpc_id was 1";
    EXPECT_TRUE(idles(context->send_buf));
    EXPECT_EQ(context->send_pos, 0U);
    EXPECT_TRUE(send_message_at_once(&plugin));
    EXPECT_EQ(received_by_peer(), framed("<b/>"));
    EXPECT_EQ(context->rpc_id, 3);
}

TEST_F(Frame, ADeadPeerIsAnErrorAndLeavesTheQueueToTheCaller)
{
    queue("<a/>");
    context->send_pos = 3;
    shutdown(peer, SHUT_RD);
    EXPECT_FALSE(send_message_at_once(&plugin));
    EXPECT_EQ(test::debug_lines(), texts());
    EXPECT_EQ(_send_message(&plugin), -1);
    EXPECT_EQ(test::debug_texts(DBG_ERROR), texts{"Send message to confd failed(Broken pipe)."});
    EXPECT_EQ(contents(context->send_buf), framed("<a/>"));
    EXPECT_EQ(context->send_pos, 3U);
    drop_unsent(&plugin);
    EXPECT_EQ(contents(context->send_buf), "");
    EXPECT_TRUE(idles(context->send_buf));
    EXPECT_EQ(context->send_pos, 0U);
}

TEST_F(Frame, WorksOverPipes)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    queue("<a/>");
    const int sock = context->sock;
    context->sock = ends[1];
    EXPECT_EQ(_send_message(&plugin), 0);
    context->sock = ends[0];
    bool_t ready = false;
    EXPECT_EQ(_recv_message(&plugin, &ready), 0);
    EXPECT_EQ(contents(context->recv_buf), framed("<a/>"));
    context->sock = sock;
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Frame, AMessageThatCannotBeQueuedWholeIsNotQueuedAtAll)
{
    EXPECT_EQ(_cache_message(&plugin, nullptr), -1);
    EXPECT_EQ(contents(context->send_buf), "");

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
    xmlNode *root = test::parse("<a/>");
    EXPECT_EQ(_cache_message(&plugin, root), -1);
    EXPECT_EQ(contents(context->send_buf), before);
    munmap(pages, 8192);
    context->send_buf = ours;
    xmlFreeNode(root);
    EXPECT_EQ(test::debug_texts(DBG_ERROR),
              (texts{"Dump rpc node failed.", "Append rpc message body to buffer failed."}));
}

TEST_F(Frame, FindsTheMessagesOfAnyStreamAtEverySplit)
{
    econf_plugin_config_debug(0, 0); // a line for each of thousands of reads tells nothing here
    const std::string one = framed("<one/>");
    const std::string two = framed("<two>\x01\xff</two>", 7);
    const std::string streams[] = {
        one + two,
        "abc" + one + "defgh" + two + "tail",
        std::string(40, '\xff') + one + "\xff\xba\xdc" + two,
        "\xff\xba" + one + magic.substr(0, 3) + "x" + one,
        head(0xfffffff0U, 0x0707) + one + two,
        one + head((64U << 20) + 1, 0x0707) + two,
        one + head(64U << 20, 0x0707) + two, // may be true: what follows belongs to it
        framed("<a>" + magic + "</a>") + one,
        framed(one) + head(0, 3) + two,
    };
    for (const std::string &stream : streams) {
        const texts expected = messages_in(stream);
        ASSERT_FALSE(expected.empty());
        for (const take amount : {take::everything, take::one_message}) {
            for (std::size_t split = 0; split <= stream.size(); ++split) {
                ASSERT_EQ(read_in_pieces({stream.substr(0, split), stream.substr(split)}, amount),
                          expected)
                    << "stream " << &stream - streams << " split at " << split;
            }
        }
    }

    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    const texts parts = {one,
                         two,
                         "ab",
                         "\xff",
                         "\xff\xba\xdc",
                         magic,
                         "0123456789abcdef",
                         head(0xffffffffU, 0x0101),
                         framed(std::string(3000, 'y'))};
    for (int round = 0; round < 2000; ++round) {
        std::string stream;
        for (unsigned count = 1 + random() % 8; count > 0; --count) {
            stream += parts[random() % parts.size()];
        }
        texts pieces;
        for (std::size_t at = 0; at < stream.size();) {
            const std::size_t size = 1 + random() % (random() % 2 == 0 ? 16 : 2000);
            pieces.push_back(stream.substr(at, size));
            at += size;
        }
        const take amount = round % 2 == 0 ? take::everything : take::one_message;
        ASSERT_EQ(read_in_pieces(pieces, amount), messages_in(stream)) << "round " << round;
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
        texts log;
    } cases[] = {
        {"", false, "", {}},
        {"abc" + framed("<a/>"), true, framed("<a/>"), {"Read message from confd(19 bytes)."}},
        {"0123456789abcdefghij", false, "89abcdefghij", {"Read message from confd(20 bytes)."}},
        {"0123456789ab", false, "0123456789ab", {"Read message from confd(12 bytes)."}},
        // Twelve bytes are not searched for a magic, so a length of 0 makes them a message.
        {zeros, true, zeros, {"Read message from confd(12 bytes)."}},
        {large + large, true, (large + large).substr(0, 2048),
         texts(2, "Read message from confd(1024 bytes).")},
    };
    for (const auto &c : cases) {
        arrive(c.arrives);
        bool_t ready = !c.ready;
        test::clear_debug_file();
        EXPECT_EQ(_recv_message(&plugin, &ready), 0);
        EXPECT_EQ(ready, c.ready);
        EXPECT_EQ(contents(context->recv_buf), c.buffered);
        EXPECT_EQ(test::debug_texts(DBG_INFO), c.log);
        EXPECT_EQ(_recv_message(&plugin, &ready), 0) << "a second call";
        EXPECT_EQ(ready, c.ready);
        EXPECT_EQ(contents(context->recv_buf), c.buffered);
        drop_received(&plugin);
        EXPECT_TRUE(idles(context->recv_buf));
    }
}

TEST_F(Frame, TheEndOfAStreamIsNoErrorAndABrokenOneEmptiesTheBuffer)
{
    bool_t ready = true;
    arrive(framed("<a/>").substr(0, 14));
    shutdown(peer, SHUT_WR);
    EXPECT_EQ(_recv_message(&plugin, &ready), 0);
    EXPECT_FALSE(ready);
    EXPECT_EQ(conf_buffer_length(context->recv_buf), 14);

    ASSERT_EQ(write(context->sock, "unread", 6), 6);
    close(peer); // bytes that nobody read: the connection is reset
    peer = dup(context->sock);
    ready = true;
    EXPECT_EQ(_recv_message(&plugin, &ready), -1);
    EXPECT_FALSE(ready);
    EXPECT_EQ(conf_buffer_length(context->recv_buf), 0);
    EXPECT_TRUE(idles(context->recv_buf));
    EXPECT_EQ(test::debug_texts(DBG_ERROR),
              texts{"Read message from confd failed(Connection reset by peer)."});
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
        {"<a><password>secret</a>", ""},
        {"", ""},
    };
    for (const auto &c : cases) {
        for (const std::string &rest : {std::string(), framed("<next/>")}) {
            std::string bytes = framed(c.body) + rest;
            ASSERT_EQ(conf_buffer_append(&context->recv_buf, bytes.data(),
                                         static_cast<int>(bytes.size())),
                      0);
            test::clear_debug_file();
            xmlNode *root = plugin_parse_message(&context->recv_buf);
            EXPECT_EQ(root == nullptr ? "" : test::print(root), c.printed);
            EXPECT_EQ(test::debug_lines(),
                      root != nullptr
                          ? texts()
                          : texts{"[ERROR] - Translate rpc message to xml dom tree failed."});
            xmlFreeNode(root);
            EXPECT_EQ(contents(context->recv_buf), rest);
            EXPECT_TRUE(idles(context->recv_buf));
            conf_buffer_flush(context->recv_buf);
        }
    }
}

TEST_F(Frame, TellsWhichBytesMayStandInABody)
{
    for (int byte = 0; byte < 256; ++byte) {
        EXPECT_EQ(is_valid_xmlchr(static_cast<char>(byte)),
                  byte >= 32 || byte == 9 || byte == 10 || byte == 13)
            << byte;
    }
}

} // namespace
