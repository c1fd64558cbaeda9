// The event loop when callbacks change the plugin, when the daemon dies, and in a long random run.
#include "demo_plugin.h"

#include <algorithm>
#include <malloc.h>
#include <numeric>
#include <poll.h>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

using namespace test;

namespace {

using LoopLifeTest = DemoFixture;

TEST_F(LoopLifeTest, RequestInsideACallback)
{
    act.inside = [] {
        act.inside = nullptr;
        xmlNode *result = nullptr;
        EXPECT_EQ(econf_plugin_pull(0, "/x", &result), 0);
        EXPECT_EQ(list_of(result), "<x/>");
        xmlFreeNodeList(result);
    };
    daemon->play([](Peer &p) {
        p.send(framed(with_id(config("/a"), "1")));
        p.receive();
        p.send(framed(with_id(kick_off, "2")) + // lost
               framed(reply("<result><data><x/></data></result>", "3")) +
               framed(with_id(config("/b"), "4")));
    });
    pollfd sock{context->sock, POLLIN, 0};
    poll(&sock, 1, -1);
    econf_plugin_run();
    EXPECT_EQ(daemon->finish().received(),
              (strings{reply("<result/>", "1"), reply("<result/>", "4")}));
    EXPECT_EQ(called, "config 3 1 0 10 /aconfig 3 1 0 10 /b");
}

TEST_F(LoopLifeTest, CallbackMayEndThePlugin)
{
    const struct {
        std::string request, accepted;
    } kinds[] = {
        {config("/a"), succeeded()},
        {operate("<a/>"), succeeded("<result><o/></result>")},
        {subscribe(""), succeeded("<result><path/><data><o/></data></result>")},
        {kick_off, succeeded()},
    };
    for (const auto &kind : kinds) {
        for (const int result : {0, 5}) {
            SCOPED_TRACE(kind.request + std::to_string(result));
            const bool kicks_off = kind.request == kick_off;
            const std::string answer =
                result == 0 || kicks_off ? kind.accepted : failed("6", "recorded");
            const auto begin = [&](const std::function<void()> &inside) {
                const auto record_and = [=] {
                    econf_plugin_error(6, "recorded");
                    inside();
                };
                act = {result, record_and, element("<o/>")};
                called.clear();
                peer->send(framed(kind.request));
            };
            // Deactivated: answered nevertheless.
            begin([] { econf_plugin_deactivate(); });
            daemon->play([](Peer &p) { p.answer("<result/>"); });
            econf_plugin_run();
            EXPECT_EQ(daemon->finish().received(), strings{answer});
            EXPECT_EQ(get_plugin_context()->bit_activate, 0U);
            get_plugin_context()->bit_activate = 1;

            // Closed: nothing more is handled or sent.
            begin([] { econf_plugin_close(); });
            peer->send(framed(kick_off));
            econf_plugin_run();
            EXPECT_EQ(peer->received(), strings{});
            EXPECT_EQ(called.rfind("kick-off"), kicks_off ? 0 : std::string::npos);
            EXPECT_EQ(get_plugin_context(), nullptr);
            daemon->forget_connection();

            // Closed and begun anew: the new connection sees nothing of the request.
            start(subscriptions());
            begin([this] {
                econf_plugin_close();
                daemon->forget_connection();
                act.inside = nullptr;
                start(subscriptions());
            });
            econf_plugin_run();
            EXPECT_EQ(peer->received(), strings{});
            ASSERT_NE(get_plugin_context(), nullptr);
            EXPECT_EQ(get_plugin_context()->err_msg, nullptr);
            EXPECT_EQ(handle({kick_off}), succeeded());
        }
    }
}

// The child has no plugin, although it has the socket.
TEST_F(LoopLifeTest, CallbackMayFork)
{
    pid_t child = -1;
    act.inside = [&] { child = fork(); };
    peer->send(framed(config("/a")));
    econf_plugin_run();
    if (child == 0) {
        _exit(0); // without a look at the replies, which the parent is to see
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(peer->received(), strings{succeeded()});
}

// ---- streams that end --------------------------------------------------------------------------

// A story of registration, activation, a request with a request of the plugin inside, and a last
// request, in which the daemon closes after any number of bytes.
TEST_F(LoopLifeTest, DaemonMayDieAnywhere)
{
    econf_plugin_config_debug(DBG_ERROR, 0);
    econf_plugin_close();
    daemon->forget_connection();
    const strings story{framed(reply("<result/>", "1")), framed(reply("<result/>", "2")),
                        framed(with_id(config("/a"), "8")),
                        framed(reply("<result><data><x/></data></result>", "3")),
                        framed(with_id(operate("<a/>"), "9"))};
    const std::size_t length = std::accumulate(story.begin(), story.end(), std::string()).size();
    act.inside = [] {
        xmlNode *result = nullptr;
        (void)econf_plugin_pull(0, "/x", &result);
        xmlFreeNodeList(result);
    };
    econf_plugin_subpub_info_t info = subscriptions();
    for (std::size_t cut = 1; cut <= length; ++cut) {
        for (const bool reads : {true, false}) { // bytes that it did not read make it a reset
            daemon->play([&](Peer &p) {
                p.close_after(cut);
                for (std::size_t i = 0; i < story.size(); ++i) {
                    if (reads && i != 2) { // each part but the request answers a message
                        p.receive();
                    }
                    p.send(story[i]);
                }
                p.close();
            });
            bool ready = econf_plugin_init("demo", &info) >= 0;
            EXPECT_TRUE(!ready || cut >= story[0].size());
            ready = ready && econf_plugin_activate(0) == 0;
            EXPECT_TRUE(!ready || cut >= story[0].size() + story[1].size());
            while (ready) {
                pollfd sock{get_plugin_context()->sock, POLLIN | POLLRDHUP, 0};
                poll(&sock, 1, -1);
                econf_plugin_run();
                ready = (sock.revents & (POLLRDHUP | POLLHUP | POLLERR)) == 0;
            }
            if (get_plugin_context() != nullptr) {
                econf_plugin_close();
            }
            daemon->forget_connection();
        }
    }
}

// ---- a long random run -------------------------------------------------------------------------

TEST_F(LoopLifeTest, EachOfManyRequestsIsAnsweredOnceInOrder)
{
    econf_plugin_config_debug(DBG_ERROR, 0);
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    const auto below = [&](std::size_t limit) { return random() % limit; };
    const strings kinds{config("/a[k=\"1\"]"),
                        config("/refuse"),
                        operate(""),
                        operate("<give>" + std::string(3000, 'x') + "</give>"),
                        operate("<refuse/>"),
                        subscribe("<path>/s</path>"),
                        kick_off,
                        rpc("unknown", "<params/>", "17"),
                        operate("", "77")};
    const strings silent{with_id(kick_off, ""), with_id(config("/refuse"), "x"), "<rpc>", "\x01"};
    act.inside = [] {
        act.result = called.find("refuse") != std::string::npos ? 5 : 0;
        if (act.result != 0) {
            econf_plugin_error(6, "own");
        }
        called.clear();
    };
    act.produce = [](xmlNode *input) { return input != nullptr ? input : parse("<s/>"); };

    constexpr u32_t count = 20000;
    u32_t sent = 0;
    u32_t answered = 0;
    std::size_t warm = 0; // bytes in use when the caches of the allocator are filled
    std::string stream;
    while (answered < count) {
        while (stream.size() < 4096 && sent < count) {
            if (below(5) == 0) {
                stream += framed(silent[below(silent.size())]);
            }
            if (below(9) == 0) {
                for (std::size_t i = below(40); i > 0; --i) {
                    stream += static_cast<char>(1 + below(0xf0)); // no part of a header
                }
            }
            // Ids of all sizes, recognisable in the reply.
            const u32_t id = ++sent * (4294967295U / count);
            stream += framed(with_id(kinds[below(kinds.size())], std::to_string(id)));
        }
        const std::size_t piece = std::min(stream.size(), 1 + below(below(4) == 0 ? 3000 : 40));
        peer->send(stream.substr(0, piece));
        stream.erase(0, piece);
        econf_plugin_run();
        for (const std::string &body : peer->received()) {
            const std::string id = "<id>" + std::to_string(++answered * (4294967295U / count));
            ASSERT_TRUE(body.ends_with(id + "</id></reply>")) << body << ", not " << id;
        }
        if (stream.empty()) {
            ASSERT_EQ(answered, sent);
        }
        if (warm == 0 && answered > count / 10) {
            warm = mallinfo2().uordblks;
        }
    }
    EXPECT_LT(mallinfo2().uordblks, warm + 16384);
}

} // namespace
