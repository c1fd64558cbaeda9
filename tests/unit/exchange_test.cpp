// The blocking exchange: which message ends it, what breaks it, and what is left behind.
#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/xml.h"
#include "fake_daemon.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

using namespace test;

namespace {

// What the epoll calls of this program do. They stand in front of the C library's.
struct epoll_plan {
    int create_error = 0; // errno of the next calls, 0 for none
    int wait_error = 0;
    bool time_out = false; // waits end at once
    int waits = 0;         // number of waits so far
    int limit = 0;         // limit of the last wait
};
epoll_plan plan;

} // namespace

extern "C" int epoll_create1(int flags) noexcept
{
    errno = plan.create_error;
    static const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "epoll_create1"));
    return plan.create_error != 0 ? -1 : real(flags);
}

extern "C" int epoll_wait(int fd, epoll_event *events, int count, int limit)
{
    ++plan.waits;
    plan.limit = limit;
    if (plan.time_out || plan.wait_error != 0) {
        errno = plan.wait_error;
        return plan.time_out ? 0 : -1;
    }
    static const auto real =
        reinterpret_cast<int (*)(int, epoll_event *, int, int)>(dlsym(RTLD_NEXT, "epoll_wait"));
    return real(fd, events, count, limit);
}

namespace {

class ExchangeTest : public PluginFixture {
protected:
    void SetUp() override
    {
        PluginFixture::SetUp();
        plan = {};
        start();
        context = get_plugin_context();
        ASSERT_NE(context, nullptr);
    }

    // A request with the id that is due; returns what _syn_send_rpc returned, and the reply.
    int exchange(const std::string &params = "<params/>")
    {
        const node_ptr request(parse(rpc("pull", params, std::to_string(context->rpc_id))));
        xmlNode *node = nullptr;
        const int result = _syn_send_rpc(get_plugin_from_hash(), request.get(), &node);
        answer = list_of(node);
        xmlFreeNode(node);
        return result;
    }

    int send_reply(const std::string &content)
    {
        const node_ptr node(parse(reply(content, "8")));
        return _syn_send_reply(get_plugin_from_hash(), node.get());
    }

    void expect_idle(const std::string &received = "") const
    {
        EXPECT_EQ(conf_buffer_length(context->send_buf), 0);
        EXPECT_EQ(context->send_pos, 0U);
        EXPECT_EQ(conf_buffer_length(context->recv_buf), static_cast<int>(received.size()));
    }

    conf_plugin_context_t *context = nullptr;
    std::string answer;
};

const std::string large = "<params>" + std::string(1U << 20, 'x') + "</params>"; // for a socket

// The plugin's third message carries the id 3.
TEST_F(ExchangeTest, EndsWithTheMessageThatCarriesItsId)
{
    const std::string mine = framed(reply("<result>mine</result>", "3"));
    const std::string foreign_reply = framed(reply("<result/>", "4"));
    const std::string request = framed(rpc("kickoff", "<params/>", "99"));
    const std::string later = framed(rpc("kickoff", "<params/>", "7"));
    const struct {
        const char *name;
        std::string left_over; // in the receive buffer beforehand
        std::string stream;
        std::size_t piece = 1000;
    } cases[] = {
        {"byte by byte", "", foreign_reply + mine, 1},
        {"behind a foreign reply and a request, in one read", "", foreign_reply + request + mine},
        {"behind a reply without id", "", framed("<reply><result/></reply>") + mine},
        {"behind a malformed message", "", framed("<reply>") + mine},
        {"behind rubbish", "", "rubbish" + mine},
        {"behind a message left over", request, mine},
        {"completes what was left over", foreign_reply + mine.substr(0, 20), mine.substr(20)},
        {"in front of another message", "", mine + later},
        {"in front of another message, read with it", request, mine + later},
    };
    for (const auto &c : cases) {
        for (const bool in_loop : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (in_loop ? ", inside the loop" : ""));
            context->rpc_id = 3;
            leave_over(c.left_over);
            daemon->play([&](Peer &p) {
                p.receive();
                for (std::size_t i = 0; i < c.stream.size(); i += c.piece) {
                    p.send(c.stream.substr(i, c.piece));
                }
            });
            {
                const auto scope = in_loop ? std::make_unique<loop_scope>() : nullptr;
                EXPECT_EQ(exchange(), 0);
            }
            daemon->finish();
            EXPECT_EQ(answer, reply("<result>mine</result>", "3"));
            EXPECT_EQ(peer->head().seq, 2);
            EXPECT_EQ(context->rpc_id, 4);
            pollfd sock{context->sock, POLLIN, 0};
            const bool more = c.stream.ends_with(later);
            if (!in_loop) { // nothing that a plugin would wait for in vain
                EXPECT_EQ(conf_buffer_length(context->recv_buf), 0);
                EXPECT_EQ(poll(&sock, 1, 0), more ? 1 : 0);
            }
            econf_plugin_run();
            EXPECT_EQ(peer->received(), more ? strings{reply("<result/>", "7")} : strings{});
            expect_idle();
        }
    }
    const std::string malformed = "Translate rpc message to xml dom tree failed.";
    EXPECT_EQ(take_errors(), malformed + "\n" + malformed);
}

TEST_F(ExchangeTest, IdsRunFrom65535To1)
{
    context->rpc_id = 65535;
    for (const auto &[seq, next] : {std::pair{65534, 1}, {0, 2}}) {
        request_of([this] { EXPECT_EQ(exchange(), 0); });
        EXPECT_EQ(peer->head().seq, seq);
        EXPECT_EQ(context->rpc_id, next);
    }
}

TEST_F(ExchangeTest, PartialWritesAndSignalsDoNotDisturb)
{
    const int room = 4096;
    ASSERT_EQ(setsockopt(context->sock, SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
    std::string request;
    std::string body;
    daemon->play([&](Peer &p) {
        p.read_size = 700;
        interrupt_wait(); // the request is stuck
        request = p.receive();
        interrupt_wait(); // the plugin waits for the answer
        p.send(framed(reply("<result/>", "3")));
        interrupt_wait(); // the reply is stuck
        body = p.receive();
    });
    plan.waits = 0;
    EXPECT_EQ(exchange(large), 0);
    EXPECT_GT(plan.waits, 3);
    EXPECT_EQ(context->rpc_id, 4);
    EXPECT_EQ(send_reply(large), 0);
    EXPECT_EQ(daemon->finish().head().seq, 3);
    EXPECT_EQ(request, rpc("pull", large, "3"));
    EXPECT_EQ(body, reply(large, "8"));
    EXPECT_EQ(context->rpc_id, 5);
    EXPECT_EQ(take_errors(), "");
    expect_idle();
}

// About a quarter of the socket's buffer suffices for epoll to report no room.
TEST_F(ExchangeTest, SmallRepliesDoNotWaitForThePeerToRead)
{
    plan.waits = 0;
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(send_reply("<result/>"), 0);
    }
    EXPECT_EQ(plan.waits, 0);
    pollfd sock{context->sock, POLLOUT, 0};
    EXPECT_EQ(poll(&sock, 1, 0), 0) << "this many replies show nothing here";
    EXPECT_EQ(peer->received().size(), 100U);
}

// A message too large for the socket meets each failure of a wait.
TEST_F(ExchangeTest, FailedWaitsLeaveTheConnectionIdle)
{
    const struct {
        const char *error;
        epoll_plan with;
        bool no_socket, reaches_wait;
    } cases[] = {
        {"Create epoll fd failed(Too many open files).", {EMFILE}, false, false},
        {"Add socket to epoll fd failed(Bad file descriptor).", {}, true, false},
        {"Epoll wait failed(Input/output error).", {0, EIO}, false, true},
        {"Epoll wait failed(timeout).", {0, 0, true}, false, true},
    };
    for (const auto &c : cases) {
        for (const bool request : {true, false}) {
            SCOPED_TRACE(std::string(c.error) + (request ? " request" : " reply"));
            const int sock = context->sock;
            context->sock = c.no_socket ? -1 : sock;
            plan = c.with;
            leave_over("rest");
            EXPECT_EQ(request ? exchange(large) : send_reply(large), -1);
            EXPECT_EQ(take_errors(), c.error);
            EXPECT_EQ(plan.limit, c.reaches_wait ? (request ? 300000 : 15000) : 0);
            expect_idle(request ? "" : "rest");
            context->sock = sock;
            conf_buffer_flush(context->recv_buf);
        }
    }
}

TEST_F(ExchangeTest, BrokenConnectionEndsEitherExchange)
{
    const std::string mine = framed(reply("<result/>", "3"));
    const struct {
        FakeDaemon::Script script;
        const char *on_read = ""; // what the loop reports then
    } breaks[] = {
        {[](Peer &p) { p.close(); }},
        {[](Peer &p) { // without having read
             pollfd request{p.fd(), POLLIN, 0};
             poll(&request, 1, -1);
             p.close();
         },
         "Read message from confd failed(Connection reset by peer)."},
        {[&](Peer &p) {
            p.receive();
            p.send(mine.substr(0, mine.size() - 1));
            p.close();
        }},
        {[](Peer &p) { // still reads, will not write
            p.receive();
            shutdown(p.fd(), SHUT_WR);
        }},
    };
    for (const auto &c : breaks) {
        SCOPED_TRACE(&c - breaks);
        daemon->play(c.script);
        if (&c == breaks) {
            daemon->finish(); // closed before the request is written
        }
        EXPECT_EQ(exchange(), -1);
        expect_idle();
        daemon->finish();
        EXPECT_EQ(send_reply(large), -1);
        expect_idle();
        const std::string broken = "An error epoll event occur(0x?).";
        EXPECT_EQ(take_errors(), broken + "\n" + broken);
        econf_plugin_run();
        EXPECT_EQ(take_errors(), c.on_read);
        econf_plugin_close();
        daemon->forget_connection();
        start();
        context = get_plugin_context();
        ASSERT_NE(context, nullptr);
    }
}

TEST_F(ExchangeTest, RecordedErrorReplacesTheOneBefore)
{
    conf_plugin_data *plugin = get_plugin_from_hash();
    const std::string long_text(70000, 'y');
    _plugin_set_error(plugin, 5, "x=%d", 1);
    _plugin_set_error(plugin, 6, "%s and %s", context->err_msg, long_text.c_str());
    EXPECT_EQ(context->err_msg, "x=1 and " + long_text);
    EXPECT_EQ(context->err_code, 6);
    _plugin_set_error(plugin, 5, nullptr);
    EXPECT_EQ(context->err_msg, def_err_msg);
    EXPECT_EQ(context->err_msg, default_error);
    EXPECT_EQ(context->err_code, 5);
    _plugin_set_error(plugin, 0, "%s", "last"); // released by close
    EXPECT_EQ(context->err_code, 0);
}

} // namespace
