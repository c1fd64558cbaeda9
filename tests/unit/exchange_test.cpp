// The blocking exchange: which message ends it, what breaks it, and what is left behind.
#include "demo_plugin.h"

#include <csignal>
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

using namespace test;

namespace {

const std::string large = "<params>" + std::string(1U << 20, 'x') + "</params>"; // for a socket

class ExchangeTest : public DemoFixture {
protected:
    // Makes a request with the id 3 and returns the reply, "" for a failure.
    std::string exchange(const std::string &params = "<params/>")
    {
        context->rpc_id = 3;
        const node_ptr request(parse(rpc("pull", params, "3")));
        xmlNode *node = nullptr;
        const int result = _syn_send_rpc(get_plugin_from_hash(), request.get(), &node);
        EXPECT_EQ(result, node != nullptr ? 0 : -1);
        return list_of(node_ptr(node).get());
    }

    static int send_reply(const std::string &content)
    {
        return _syn_send_reply(get_plugin_from_hash(), node_ptr(parse(reply(content, "8"))).get());
    }
};

TEST_F(ExchangeTest, EndsWithTheMessageThatCarriesItsId)
{
    const std::string mine = framed(reply("<result>mine</result>", "3"));
    const std::string foreign = framed(reply("<result/>", "4")), request = framed(kick_off);
    const std::string same_id = framed(rpc("publish", "<params/>", "3"));
    // First in the receive buffer, and then.
    const std::pair<std::string, std::string> cases[] = {
        {"", foreign + request + mine},
        {same_id, same_id + mine},
        {"", framed("<reply><result/></reply>") + mine},
        {"", "rubbish" + framed("<reply>") + mine},
        {foreign + mine.substr(0, 20), mine.substr(20)},
        {"", mine + request},
        {request, mine + request},
    };
    for (const auto &[left_over, arrives] : cases) {
        for (const bool in_loop : {false, true}) {
            SCOPED_TRACE(left_over + arrives + (in_loop ? " in the loop" : ""));
            leave_over(left_over);
            daemon.play([bytes = arrives](Peer &p) {
                p.receive();
                p.send(bytes.substr(0, 30));
                p.send(bytes.substr(30));
            });
            const bool more = arrives.ends_with(request);
            {
                const auto scope = in_loop ? std::make_unique<loop_scope>() : nullptr;
                EXPECT_EQ(exchange(), reply("<result>mine</result>", "3"));
            }
            daemon.finish();
            pollfd sock{context->sock, POLLIN, 0};
            if (!in_loop) { // nothing that a plugin would wait for in vain
                expect_idle();
                EXPECT_EQ(poll(&sock, 1, 0), more ? 1 : 0);
            }
            EXPECT_EQ(handle(), more ? succeeded() : "");
            expect_idle();
        }
    }
}

TEST_F(ExchangeTest, WaitsForRoomOnlyWhereThereIsNone)
{
    const int room = 4096;
    ASSERT_EQ(setsockopt(context->sock, SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
    EXPECT_EQ(request_of([this] { exchange(large); }), rpc("pull", large, "3"));
    std::string body;
    daemon.play([&](Peer &p) { body = p.receive(); });
    EXPECT_EQ(send_reply(large), 0);
    EXPECT_EQ(daemon.finish().head().seq, 3);
    EXPECT_EQ(body, reply(large, "8"));

    // About a quarter of the buffer suffices for epoll to report no room: a wait would be in vain.
    pollfd sock{context->sock, POLLOUT, 0};
    do {
        ASSERT_EQ(send_reply("<result/>"), 0);
    } while (poll(&sock, 1, 0) == 1);
    EXPECT_EQ(send_reply("<result/>"), 0);
    EXPECT_EQ(take_errors(), "");
}

TEST_F(ExchangeTest, ReportsARequestThatItDrops)
{
    peer->send(framed(rpc("publish", "<params/>", "4294967295")) + framed(reply("<x/>", "7")));
    request_of([this] { exchange(); });
    EXPECT_EQ(
        debug_texts(DBG_WARN),
        strings{"Request publish of confd with id 4294967295 is dropped, for a reply is awaited."});
}

// A reply may carry the id of a request that has not been written whole, or not at all: then the
// exchange ends early, or the reply is none of its business.
TEST_F(ExchangeTest, ReplyBeforeItsRequest)
{
    const std::string foreign = reply("<result>early</result>", "3");
    const int room = 4096;
    ASSERT_EQ(setsockopt(context->sock, SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
    peer->send(framed(foreign));
    EXPECT_EQ(exchange(large), foreign);
    strings bodies;
    daemon.play([&](Peer &p) { bodies = {p.receive(), p.receive()}; });
    EXPECT_EQ(send_reply("<result/>"), 0);
    daemon.finish();
    EXPECT_EQ(bodies, (strings{rpc("pull", large, "3"), reply("<result/>", "8")}));
    expect_idle();

    const std::string filling = framed("<filling/>");
    while (send(context->sock, filling.data(), filling.size(), MSG_NOSIGNAL) > 0) {
    }
    peer->send(framed(foreign));
    daemon.play([](Peer &p) {
        for (int unread = 1; unread > 0;) {
            ioctl(p.fd(), SIOCOUTQ, &unread);
        }
        while (p.receive() == "<filling/>") {
        }
        p.send(framed(reply("<result>mine</result>", "3")));
    });
    EXPECT_EQ(exchange(), reply("<result>mine</result>", "3"));
    daemon.finish();
    expect_idle();
}

TEST_F(ExchangeTest, BrokenConnectionEndsEitherExchange)
{
    const FakeDaemon::Script stops_writing = [](Peer &p) { // but still reads
        p.receive();
        p.send(framed(reply("<result/>", "3")).substr(0, 30));
        shutdown(p.fd(), SHUT_WR);
    };
    for (const auto &script : {FakeDaemon::Script(&Peer::close), stops_writing}) {
        leave_over("rest");
        daemon.play(script);
        EXPECT_EQ(exchange(), "");
        expect_idle();
        daemon.finish();
        EXPECT_EQ(send_reply(large), -1);
        expect_idle();
        const std::string broken = "An error epoll event occur(0x?).";
        EXPECT_EQ(take_errors(), broken + "\n" + broken);
        end();
        start();
    }
}

// The process closes the socket, so that its number goes to the next descriptor, or puts something
// else in its place. Nothing is written there, and nothing waited for.
TEST_F(ExchangeTest, DescriptorThatIsNoLongerTheSocket)
{
    static int sock, other;
    std::signal(SIGUSR1, [](int) { other < 0 ? close(sock) : dup2(other, sock); });
    const struct {
        const char *name, *while_waiting, *before;
    } cases[] = {
        {"", "Epoll wait failed(Bad file descriptor).",
         "Add socket to epoll fd failed(Invalid argument)."},
        {"/dev/null", "Read message from confd failed(Socket operation on non-socket).",
         "Add socket to epoll fd failed(Operation not permitted)."},
        {"/var/tmp/file", "Read message from confd failed(Socket operation on non-socket).",
         "Add socket to epoll fd failed(Operation not permitted)."},
    };
    for (const auto &[name, while_waiting, before] : cases) {
        SCOPED_TRACE(name);
        sock = context->sock;
        other = open(name, O_RDWR | O_CREAT, 0600);
        daemon.play([plugin = pthread_self()](Peer &p) {
            p.receive();
            pthread_kill(plugin, SIGUSR1);
        });
        EXPECT_EQ(exchange(), "");
        daemon.finish();
        EXPECT_EQ(take_errors(), while_waiting);
        EXPECT_EQ(exchange(), "");
        EXPECT_EQ(take_errors(), before);
        struct stat written = {};
        fstat(other, &written);
        EXPECT_EQ(written.st_size, 0);
        close(other);
        context->sock = other < 0 ? -1 : sock;
        end();
        start();
    }
    std::signal(SIGUSR1, SIG_DFL);
}

} // namespace
