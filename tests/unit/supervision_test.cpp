// What a supervised plugin does otherwise in an exchange: it keeps requests, and has total limits.
#include "supervised.h"

#include <numeric>

namespace {

using namespace test;

// The daemon sends requests of its own before each reply, so every request of the plugin collides.
TEST_F(Supervisor, KeepsWhatComesDuringARequest)
{
    struct {
        int burst;
        bool pulls;
        bool nested; // callbacks make a request, too
    } const rows[] = {{1, false, false}, {1, true, true}, {7, false, true}, {200, true, false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.burst);
        constexpr int total = 400;
        int requests = 0;
        const auto request = [&] {
            xmlNode *list = nullptr;
            const int result = row.pulls ? econf_plugin_pull(0, "/demo", &list) : push();
            EXPECT_EQ(result, 0);
            EXPECT_EQ(list_of(list), row.pulls ? "<d/>" : "");
            xmlFreeNodeList(list);
            ++requests;
        };
        int callbacks = 0;
        act.inside = [&] {
            ++callbacks;
            if (row.nested) {
                request();
            }
        };
        ASSERT_NO_FATAL_FAILURE(join());
        std::vector<int> answered;
        std::atomic<bool> done = false;
        daemon.play([&](Peer &connection) {
            for (int asked = 0; answered.size() < total;) {
                const std::string body = connection.receive();
                if (body.find("<reply>") == 0) {
                    answered.push_back(id_of(body));
                    continue;
                }
                ASSERT_NE(body, "");
                std::string bytes;
                for (int i = 0; i < row.burst && asked < total; ++i) {
                    bytes += status_request(++asked);
                }
                connection.send(bytes + framed(reply("<result><data><d/></data></result>",
                                                     std::to_string(id_of(body)))));
            }
            done = true;
        });
        while (!done) { // one request for the timer of a host, and a turn
            if (callbacks < total) {
                const int before = callbacks;
                request();
                EXPECT_EQ(callbacks, before) << "called from inside a request";
            }
            pollfd input = {econf_supervisor_fd(s), POLLIN, 0};
            (void)poll(&input, 1, 20);
            ASSERT_EQ(econf_supervisor_process(s), 1);
        }
        (void)daemon.finish();
        std::vector<int> wanted(total);
        std::iota(wanted.begin(), wanted.end(), 1);
        EXPECT_EQ(answered, wanted);
        EXPECT_EQ(callbacks, total);
        EXPECT_EQ(debug_texts(DBG_WARN), strings{});
        econf_supervisor_destroy(std::exchange(s, nullptr));
        daemon.forget_connection();
        events.clear();
    }
}

TEST_F(Supervisor, LosesNothingOfTheStart)
{
    daemon.play([](Peer &connection) {
        connection.answer(ok);
        const int id = id_of(connection.receive());
        connection.send(framed(config("/demo/early")) + framed(reply(ok, std::to_string(id))) +
                        framed(config("/demo/later")));
        connection.send(framed(config("/demo/last")));
        connection.answer("<result><data><d/></data></result>");
    });
    inside["joined"] = [&] {
        xmlNode *list = nullptr;
        EXPECT_EQ(econf_plugin_pull(0, "/demo", &list), 0);
        xmlFreeNodeList(list);
        called += "pulled ";
    };
    create({.start_mode = ACTIVATE_WITH_CFGR});
    ASSERT_EQ(turn_until([] { return called.find("last") != std::string::npos; }), 1);
    EXPECT_EQ(called, "pulled config 3 1 0 10 /demo/early"
                      "config 3 1 0 10 /demo/laterconfig 3 1 0 10 /demo/last");
    EXPECT_EQ(daemon.finish().receive() + daemon.finish().receive() + daemon.finish().receive(),
              succeeded() + succeeded() + succeeded());
}

// A body that begins otherwise than replies do is looked at whole; what is not well-formed goes.
TEST_F(Supervisor, TellsRepliesFromRequests)
{
    ASSERT_NO_FATAL_FAILURE(join());
    const std::string prolog = "<?xml version=\"1.0\"?>\n";
    daemon.play([&](Peer &connection) {
        const std::string id = std::to_string(id_of(connection.receive()));
        connection.send(framed(prolog + config("/demo/a")) + framed("<rpc>") +
                        framed(reply(ok, "60000")) + framed(prolog + reply(ok, "60001")) +
                        framed(with_id(config("/demo/b"), id)) + framed(prolog + reply(ok, id)));
    });
    EXPECT_EQ(push(), 0);
    (void)daemon.finish();
    EXPECT_EQ(called, "");
    ASSERT_EQ(turn_until([] { return called.find("/b") != std::string::npos; }), 1);
    EXPECT_EQ(called, "config 3 1 0 10 /demo/aconfig 3 1 0 10 /demo/b");
}

// ---- limits ------------------------------------------------------------------------------------

TEST_F(Supervisor, MissedLimitLeavesTheStreamInStep)
{
    ASSERT_NO_FATAL_FAILURE(join({.answer_limit = 30}));
    xmlNode *list = nullptr;
    EXPECT_EQ(econf_plugin_pull(0, "/first", &list), -1);
    const std::string first = peer->receive();
    // A request that fills the socket is cut by the limit, and the next one is not begun.
    const std::string big = "<big>" + std::string(4U << 20U, 'x') + "</big>";
    xmlNode *data = parse(big);
    EXPECT_EQ(econf_plugin_push("/second", data), -1);
    EXPECT_EQ(econf_plugin_push("/third", data), -1);
    xmlFreeNode(data);
    EXPECT_EQ(take_errors().find("bind"), std::string::npos);

    // The daemon reads on: it gets the second request whole, and its replies are too late.
    const auto late = [](const std::string &body) {
        return framed(reply("<result><data><late/></data></result>", std::to_string(id_of(body))));
    };
    std::string second;
    std::atomic<bool> done = false;
    daemon.play([&](Peer &connection) {
        second = connection.receive();
        connection.send(late(first) + late(second) + status_request(1));
        EXPECT_EQ(id_of(connection.receive()), 1);
        done = true;
    });
    ASSERT_EQ(turn_until([&] { return done.load(); }), 1);
    peer = &daemon.finish();
    EXPECT_NE(second.find("<path>/second</path><data>" + big), std::string::npos);
    daemon.play([&](Peer &connection) { connection.answer("<result><data><d/></data></result>"); });
    while (econf_plugin_pull(0, "/fourth", &list) != 0) { // where the machine is slow
    }
    (void)daemon.finish();
    EXPECT_EQ(list_of(list), "<d/>");
    xmlFreeNodeList(list);
    EXPECT_EQ(events, strings{"joined"});
}

// What comes without end and is no reply does not extend the limit.
TEST_F(Supervisor, MissedLimitHoldsHoweverMuchComes)
{
    ASSERT_NO_FATAL_FAILURE(join({.answer_limit = 30}));
    std::atomic<bool> over = false, done = false;
    daemon.play([&](Peer &connection) {
        (void)connection.receive();
        while (!over) {
            connection.send(framed(reply(ok, "60000")));
        }
        done = true;
    });
    EXPECT_EQ(push(), -1);
    over = true;
    ASSERT_EQ(turn_until([&] { return done.load(); }), 1); // what was under way is read
    (void)daemon.finish();
}

// 64 MiB are kept, in order; what comes beyond is dropped, with a warning each.
TEST_F(Supervisor, KeepsAsMuchAsOneMessageMayHave)
{
    ASSERT_NO_FATAL_FAILURE(join());
    constexpr int kept = 63, sent = kept + 3;
    std::vector<int> answered;
    std::atomic<bool> done = false;
    daemon.play([&](Peer &connection) {
        const std::string id = std::to_string(id_of(connection.receive()));
        const std::string blanks(1U << 20U, ' ');
        for (int i = 1; i <= sent; ++i) {
            connection.send(framed(with_id(subscribe(state_path), std::to_string(i)) + blanks));
        }
        connection.send(framed(reply(ok, id)));
        while (answered.size() < kept) {
            answered.push_back(id_of(connection.receive()));
        }
        done = true;
    });
    EXPECT_EQ(push(), 0);
    EXPECT_EQ(debug_texts(DBG_WARN).size(), 0U + sent - kept);
    ASSERT_EQ(turn_until([&] { return done.load(); }), 1);
    (void)daemon.finish();
    std::vector<int> wanted(kept);
    std::iota(wanted.begin(), wanted.end(), 1);
    EXPECT_EQ(answered, wanted);
}

TEST_F(Supervisor, DaemonThatDoesNotReadHoldsNobody)
{
    ASSERT_NO_FATAL_FAILURE(join());
    act.produce = nodes_of("<big>" + std::string(100000, 'x') + "</big>");
    constexpr int total = 20;
    std::string bytes;
    for (int id = 1; id <= total; ++id) {
        bytes += status_request(id);
    }
    peer->send(bytes);
    while (is_readable()) {
        ASSERT_EQ(econf_supervisor_process(s), 1); // none of which waits, or the guard ends this
    }
    std::vector<int> answered;
    std::atomic<bool> done = false;
    daemon.play([&](Peer &connection) {
        while (answered.size() < total) {
            answered.push_back(id_of(connection.receive()));
        }
        done = true;
    });
    ASSERT_EQ(turn_until([&] { return done.load(); }), 1);
    (void)daemon.finish();
    EXPECT_EQ(answered.size(), 0U + total);
    EXPECT_TRUE(std::is_sorted(answered.begin(), answered.end()));
}

} // namespace
