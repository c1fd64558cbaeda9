// The blocking exchange: which message ends it, what breaks it, and what is left behind.
#include "fake_daemon.h"

#include "conf_plugin/plugin_internal.h"

#include <atomic>
#include <csignal>
#include <ctime>
#include <dlfcn.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace {

using strings = std::vector<std::string>;

// What the epoll calls of this program do.
struct epoll_plan {
    int waits = 0;        // number of waits so far
    int limit = 0;        // limit of the last wait
    int create_error = 0; // errno of the next calls, 0 for none
    int wait_error = 0;
    bool time_out = false; // waits end at once
};
epoll_plan plan;

} // namespace

// They stand in front of the C library's.
extern "C" int epoll_create1(int flags) noexcept
{
    if (plan.create_error != 0) {
        errno = plan.create_error;
        return -1;
    }
    static const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "epoll_create1"));
    return real(flags);
}

extern "C" int epoll_wait(int fd, epoll_event *events, int count, int limit)
{
    ++plan.waits;
    plan.limit = limit;
    if (plan.wait_error != 0) {
        errno = plan.wait_error;
        return -1;
    }
    if (plan.time_out) {
        return 0;
    }
    static const auto real =
        reinterpret_cast<int (*)(int, epoll_event *, int, int)>(dlsym(RTLD_NEXT, "epoll_wait"));
    return real(fd, events, count, limit);
}

namespace {

class ExchangeTest : public test::PluginFixture {
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
        const test::Tree request(test::rpc("pull", params, std::to_string(context->rpc_id)));
        xmlNode *node = nullptr;
        const int result = _syn_send_rpc(get_plugin_from_hash(), request.node, &node);
        answer = node == nullptr ? "" : test::print(node);
        xmlFreeNode(node);
        return result;
    }

    int send_reply(const std::string &content)
    {
        const test::Tree node(test::reply(content, "8"));
        return _syn_send_reply(get_plugin_from_hash(), node.node);
    }

    void expect_idle(bool received_too = true) const
    {
        EXPECT_EQ(conf_buffer_length(context->send_buf), 0);
        EXPECT_EQ(context->send_pos, 0U);
        if (received_too) {
            EXPECT_EQ(conf_buffer_length(context->recv_buf), 0);
        }
    }

    conf_plugin_context_t *context = nullptr;
    std::string answer;
};

// More than a socket holds.
std::string large()
{
    return "<params>" + std::string(1U << 20, 'x') + "</params>";
}

// The plugin's third message carries the id 3.
TEST_F(ExchangeTest, EndsWithTheMessageThatCarriesItsId)
{
    const std::string mine = test::framed(test::reply("<result>mine</result>", "3"));
    const std::string foreign_reply = test::framed(test::reply("<result/>", "4"));
    const std::string request = test::framed(test::rpc("kickoff", "<params/>", "99"));
    const std::string later = test::framed(test::rpc("kickoff", "<params/>", "7"));
    const struct {
        const char *name;
        std::string left_over; // in the receive buffer beforehand
        std::string stream;
        std::size_t piece;
    } cases[] = {
        {"alone", "", mine, 1000},
        {"byte by byte", "", foreign_reply + mine, 1},
        {"behind a foreign reply, in one read", "", foreign_reply + mine, 1000},
        {"behind a request, in one read", "", request + mine, 1000},
        {"behind a reply without id", "", test::framed("<reply><result/></reply>") + mine, 1000},
        {"behind a malformed message", "", test::framed("<reply>") + mine, 1000},
        {"behind rubbish", "", "rubbish" + mine, 1000},
        {"behind a message left over", request, mine, 1000},
        {"completes what was left over", foreign_reply + mine.substr(0, 20), mine.substr(20), 1000},
        {"in front of another message", "", mine + later, 1000},
        {"in front of another message, read with it", request, mine + later, 1000},
    };
    for (const auto &c : cases) {
        for (const bool in_loop : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (in_loop ? ", inside the loop" : ""));
            context->rpc_id = 3;
            std::string bytes = c.left_over;
            ASSERT_TRUE(bytes.empty() || conf_buffer_append(&context->recv_buf, bytes.data(),
                                                            static_cast<int>(bytes.size())) == 0);
            daemon->play([&](test::Peer &p) {
                p.receive();
                for (std::size_t i = 0; i < c.stream.size(); i += c.piece) {
                    p.send(c.stream.substr(i, c.piece));
                }
            });
            if (in_loop) {
                const loop_scope scope;
                EXPECT_EQ(exchange(), 0);
            } else {
                EXPECT_EQ(exchange(), 0);
            }
            daemon->finish();
            EXPECT_EQ(answer, test::reply("<result>mine</result>", "3"));
            EXPECT_EQ(peer->head().seq, 2);
            EXPECT_EQ(context->rpc_id, 4);
            pollfd sock{context->sock, POLLIN, 0};
            const bool more = c.stream.ends_with(later);
            if (!in_loop) { // nothing that a plugin would wait for in vain
                EXPECT_EQ(conf_buffer_length(context->recv_buf), 0);
                EXPECT_EQ(poll(&sock, 1, 0), more ? 1 : 0);
            }
            econf_plugin_run();
            EXPECT_EQ(peer->received(), more ? strings{test::reply("<result/>", "7")} : strings{});
            expect_idle();
        }
    }
    EXPECT_EQ(errors(), strings(2, "Translate rpc message to xml dom tree failed."));
}

TEST_F(ExchangeTest, IdsRunFrom65535To1)
{
    context->rpc_id = 65535;
    for (const auto &[seq, next] : {std::pair{65534, 1}, {0, 2}}) {
        daemon->play([](test::Peer &p) { p.answer("<result/>"); });
        EXPECT_EQ(exchange(), 0);
        EXPECT_EQ(daemon->finish().head().seq, seq);
        EXPECT_EQ(context->rpc_id, next);
    }
}

std::atomic<int> signals;

void count_signal(int /*number*/)
{
    ++signals;
}

// Sends SIGUSR1 to the process every millisecond.
class signal_storm {
public:
    signal_storm()
    {
        signals = 0;
        struct sigaction action {};
        action.sa_handler = count_signal; // without SA_RESTART
        sigaction(SIGUSR1, &action, &before_);
        sigevent event{};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = SIGUSR1;
        EXPECT_EQ(timer_create(CLOCK_MONOTONIC, &event, &timer_), 0);
        const itimerspec each{{0, 1000000}, {0, 1000000}};
        timer_settime(timer_, 0, &each, nullptr);
    }
    ~signal_storm()
    {
        timer_delete(timer_);
        sigaction(SIGUSR1, &before_, nullptr);
    }
    signal_storm(const signal_storm &) = delete;
    signal_storm &operator=(const signal_storm &) = delete;

    static void wait()
    {
        for (const int until = signals + 20; signals < until;) {
            std::this_thread::yield();
        }
    }

private:
    timer_t timer_{};
    struct sigaction before_ {};
};

TEST_F(ExchangeTest, PartialWritesAndSignalsDoNotDisturb)
{
    const int room = 4096;
    ASSERT_EQ(setsockopt(context->sock, SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
    const signal_storm storm;
    std::string request;
    std::string body;
    daemon->play([&](test::Peer &p) {
        p.read_size = 700;
        signal_storm::wait(); // the request is stuck
        request = p.receive();
        signal_storm::wait(); // the plugin waits for the answer
        p.send(test::framed(test::reply("<result/>", "3")));
        signal_storm::wait(); // the reply is stuck
        body = p.receive();
    });
    plan.waits = 0;
    EXPECT_EQ(exchange(large()), 0);
    EXPECT_GT(plan.waits, 3);
    EXPECT_EQ(context->rpc_id, 4);
    EXPECT_EQ(send_reply(large()), 0);
    EXPECT_EQ(daemon->finish().head().seq, 3);
    EXPECT_EQ(request, test::rpc("pull", large(), "3"));
    EXPECT_EQ(body, test::reply(large(), "8"));
    EXPECT_EQ(context->rpc_id, 5);
    EXPECT_EQ(errors(), strings{});
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
        bool no_socket;
        bool reaches_wait;
    } cases[] = {
        {"Create epoll fd failed(Too many open files).", {0, 0, EMFILE, 0, false}, false, false},
        {"Add socket to epoll fd failed(Bad file descriptor).", {}, true, false},
        {"Epoll wait failed(Input/output error).", {0, 0, 0, EIO, false}, false, true},
        {"Epoll wait failed(timeout).", {0, 0, 0, 0, true}, false, true},
    };
    for (const auto &c : cases) {
        for (const bool request : {true, false}) {
            SCOPED_TRACE(std::string(c.error) + (request ? " request" : " reply"));
            const int sock = context->sock;
            context->sock = c.no_socket ? -1 : sock;
            plan = c.with;
            char rest[] = "rest";
            ASSERT_EQ(conf_buffer_append(&context->recv_buf, rest, 4), 0);
            test::clear_debug_file();
            EXPECT_EQ(request ? exchange(large()) : send_reply(large()), -1);
            EXPECT_EQ(errors(), strings{c.error});
            EXPECT_EQ(plan.limit, c.reaches_wait ? (request ? 300000 : 15000) : 0);
            expect_idle(request);
            context->sock = sock;
            conf_buffer_flush(context->recv_buf);
        }
    }
}

TEST_F(ExchangeTest, BrokenConnectionEndsEitherExchange)
{
    const std::string mine = test::framed(test::reply("<result/>", "3"));
    const strings no_more;
    const struct {
        test::FakeDaemon::Script script;
        strings on_read; // what the loop reports then
    } breaks[] = {
        {[](test::Peer &p) { p.close(); }, no_more},
        {[](test::Peer &p) {
             p.receive();
             p.close();
         },
         no_more},
        {[](test::Peer &p) { // without having read
             pollfd request{p.fd(), POLLIN, 0};
             poll(&request, 1, -1);
             p.close();
         },
         {"Read message from confd failed(Connection reset by peer)."}},
        {[&](test::Peer &p) {
             p.receive();
             p.send(mine.substr(0, 5));
             p.close();
         },
         no_more},
        {[&](test::Peer &p) {
             p.receive();
             p.send(mine.substr(0, mine.size() - 1));
             p.close();
         },
         no_more},
        {[](test::Peer &p) { // still reads, will not write
             p.receive();
             shutdown(p.fd(), SHUT_WR);
         },
         no_more},
    };
    int number = 0;
    for (const auto &c : breaks) {
        SCOPED_TRACE(number);
        daemon->play(c.script);
        if (number++ == 0) {
            daemon->finish(); // closed before the request is written
        }
        EXPECT_EQ(exchange(), -1);
        expect_idle();
        daemon->finish();
        EXPECT_EQ(send_reply(large()), -1);
        expect_idle();
        EXPECT_EQ(errors(), strings(2, "An error epoll event occur(0x?)."));

        test::clear_debug_file();
        econf_plugin_run();
        EXPECT_EQ(errors(), c.on_read);
        econf_plugin_close();
        daemon->forget_connection();
        start();
        context = get_plugin_context();
        ASSERT_NE(context, nullptr);
    }
}

TEST_F(ExchangeTest, SimpleRequestTellsResultFromError)
{
    const struct {
        std::string content;
        int result;
        strings errors;
    } cases[] = {
        {"<result><any/></result>", 0, {}},
        {test::error("3", "no &lt;room"), -1, {"Confd reply error(no <room) for plugin demo rpc."}},
        {"<result/>" + test::error("0", ""),
         -1,
         {"Invalid reply message(both <error> and <result>).",
          "Parse reply for plugin demo rpc failed."}},
        {"",
         -1,
         {"Invalid reply message(without <error> and <result>).",
          "Parse reply for plugin demo rpc failed."}},
    };
    for (const auto &c : cases) {
        test::clear_debug_file();
        daemon->play([&](test::Peer &p) { p.answer(c.content); });
        const test::Tree request(test::rpc("push", "<params/>", std::to_string(context->rpc_id)));
        EXPECT_EQ(_plugin_single_rpc_send(get_plugin_from_hash(), request.node), c.result);
        daemon->finish();
        EXPECT_EQ(errors(), c.errors);
    }
    peer->close();
    test::clear_debug_file();
    const test::Tree request(test::rpc("push", "<params/>", "7"));
    EXPECT_EQ(_plugin_single_rpc_send(get_plugin_from_hash(), request.node), -1);
    EXPECT_EQ(errors(), (strings{"An error epoll event occur(0x?).",
                                 "Plugin demo send rpc to confd failed."}));
}

TEST_F(ExchangeTest, RecordedErrorReplacesTheOneBefore)
{
    conf_plugin_data *plugin = get_plugin_from_hash();
    const std::string long_text(70000, 'y');
    _plugin_set_error(plugin, 5, "x=%d", 1);
    EXPECT_STREQ(context->err_msg, "x=1");
    _plugin_set_error(plugin, 6, "%s and %s", context->err_msg, long_text.c_str());
    EXPECT_EQ(context->err_msg, "x=1 and " + long_text);
    EXPECT_EQ(context->err_code, 6);
    _plugin_set_error(plugin, 5, nullptr);
    EXPECT_EQ(context->err_msg, def_err_msg);
    EXPECT_STREQ(def_err_msg, test::default_error.c_str());
    EXPECT_EQ(context->err_code, 5);
    _plugin_set_error(plugin, 0, "%s", "last"); // released by close
    EXPECT_EQ(context->err_code, 0);
}

} // namespace
