// The daemon comes, goes and refuses, and the plugin joins it again.
#include "conf_supervisor/watch.h"
#include "supervised.h"

#include <filesystem>
#include <fstream>
#include <random>
#include <sys/resource.h>

namespace {

using namespace test;

TEST_F(Supervisor, SaysWhyItIsNotJoined)
{
    const std::string at = " at /var/tmp/daemon/confd.plugin.socket: ";
    struct {
        std::function<void()> prepare;
        std::string wanted;
        int limit = never;
    } const rows[] = {
        {[&] { daemon.play([](Peer &p) { p.answer(error("7", "the name is taken")); }); },
         "The daemon refuses: the name is taken"},
        {[&] { daemon.play([](Peer &p) { p.answer(ok), p.answer(error("8", "not now")); }); },
         "The daemon refuses: not now"},
        {[&] { daemon.play([](Peer &p) { p.answer("<error><code>9</code></error>"); }); },
         "The daemon refuses: no reason"},
        {[&] { // which is no supervisor's to close
             daemon.play([](Peer &p) { p.answer(ok); });
             econf_plugin_subpub_info_t info = subscriptions();
             EXPECT_GE(econf_plugin_init("own", &info), 0);
         },
         "The process has a plugin of its own."},
        {[&] { daemon.play([](Peer &p) { p.receive(), p.close(); }); },
         "The daemon has closed the connection."},
        {[&] { daemon.play([](Peer &p) { p.receive(); }); }, "The daemon does not answer.", 30},
        {[&] { daemon.stop(); }, "There is no daemon" + at + "Connection refused."},
        {[] { std::filesystem::remove("/var/tmp/daemon/confd.plugin.socket"); },
         "There is no daemon" + at + "No such file or directory."},
        {[] { std::filesystem::remove_all("/var/tmp/daemon"); },
         "There is no daemon" + at + "No such file or directory."},
    };
    for (const auto &row : rows) {
        create({.join_limit = row.limit, .retry_first = never});
        row.prepare();
        const std::string before = reason();
        EXPECT_EQ(turn_until([&] { return reason() != before; }), 1);
        EXPECT_EQ(reason(), row.wanted);
        EXPECT_EQ(events, strings{});
        econf_supervisor_destroy(std::exchange(s, nullptr));
        EXPECT_EQ(get_plugin_context() != nullptr, row.wanted.find("own") != std::string::npos);
        econf_plugin_close();
        daemon.forget_connection();
    }
}

// The pauses are so long that only the appearance of the socket can bring the plugin back.
TEST_F(Supervisor, JoinsWhenTheSocketAppears)
{
    const auto profile = [](const char *directory) {
        std::ofstream("/dev/shm/yang_modules/confd.conf")
            << R"({"working-dir": ")" << directory << R"("})";
    };
    struct {
        std::function<void()> away;
        std::function<void()> back;
    } const rows[] = {
        {[] {}, [&] { daemon.start(); }},
        {[] { std::filesystem::remove_all("/var/tmp/daemon"); }, [&] { daemon.start(); }},
        {[] {},
         [&] {
             std::filesystem::remove_all("/var/tmp/daemon"); // with the watch of it
             daemon.start();
         }},
        {[&] { profile("/var/tmp/a/b/c"); },
         [&] {
             daemon.start(); // which writes the profile, too
         }},
        {[] { std::filesystem::remove_all("/dev/shm/yang_modules"); }, [&] { daemon.start(); }},
    };
    ASSERT_NO_FATAL_FAILURE(join({.retry_first = never, .retry_most = never}));
    for (const auto &row : rows) {
        events.clear();
        row.away();
        daemon.stop();
        ASSERT_EQ(turn_until([&] { return !events.empty(); }), 1);
        for (int i = 0; i < 20; ++i) { // attempts that follow at once fail
            pollfd input = {econf_supervisor_fd(s), POLLIN, 0};
            (void)poll(&input, 1, 1);
            ASSERT_EQ(econf_supervisor_process(s), 1);
        }
        EXPECT_EQ(events, strings{"lost: The daemon has closed the connection."});
        EXPECT_EQ(push(), -1);
        row.back();
        daemon.play(accept_plugin);
        ASSERT_EQ(turn_until([&] { return events.size() > 1; }), 1);
        (void)daemon.finish();
        EXPECT_EQ(events.back(), "joined");
        EXPECT_EQ(reason(), "");
    }
}

// A new daemon's socket may get the number of the old one's file.
TEST(SocketIdentity, IsOfNumberAndTime)
{
    const socket_identity one = {true, 5, {7, 9}};
    for (const socket_identity &other : {socket_identity{false, 5, {7, 9}},
                                         {true, 6, {7, 9}},
                                         {true, 5, {8, 9}},
                                         {true, 5, {7, 8}}}) {
        EXPECT_FALSE(one == other);
    }
    EXPECT_TRUE(one == socket_identity(one));
}

// The host is not held up by a daemon that is not there. What a call waits for makes the kernel
// switch to something else.
TEST_F(Supervisor, FailedAttemptDoesNotWait)
{
    daemon.stop();
    create({.retry_first = 1, .retry_most = 1});
    constexpr int attempts = 50;
    long waits = 0;
    for (int i = 0; i < attempts; ++i) {
        pollfd input = {econf_supervisor_fd(s), POLLIN, 0};
        ASSERT_EQ(poll(&input, 1, -1), 1);
        rusage before{}, after{};
        (void)getrusage(RUSAGE_THREAD, &before);
        ASSERT_EQ(econf_supervisor_process(s), 1);
        (void)getrusage(RUSAGE_THREAD, &after);
        waits += after.ru_nvcsw - before.ru_nvcsw;
    }
    EXPECT_LT(waits, attempts / 2);
}

// Each daemon lives for a random number of messages, with a configuration of its own, which is
// empty at times. What the plugin has after each start is what that daemon has.
TEST_F(Supervisor, StateFollowsEveryDaemon)
{
    constexpr int lives = 100;
    std::mt19937 random(20);
    std::atomic<int> life = 0;
    std::string state;
    int pulled = 0;
    inside["joined"] = [&] {
        xmlNode *list = nullptr;
        if (econf_plugin_pull(0, "/demo", &list) == 0) {
            state = list_of(list);
            ++pulled;
        }
        xmlFreeNodeList(list);
    };
    create({.join_limit = 60000, .answer_limit = 60000});
    const int descriptors = open_descriptors();
    while (life < lives) {
        const int number = life;
        const int messages = number + 1 == lives ? 50 : static_cast<int>(random() % 12);
        const std::string present = number % 3 == 2 ? "" : "<u>" + std::to_string(number) + "</u>";
        state = "stale";
        std::atomic<bool> done = false;
        daemon.play([&](Peer &connection) {
            for (int i = 0; i < messages; ++i) {
                if (i > 3) {
                    connection.send(status_request(i));
                }
                if (connection.answer("<result><data>" + present + "</data></result>").empty()) {
                    break;
                }
            }
            daemon.stop_listening(); // both go at once, or nearly so
            connection.close();
            done = true;
        });
        std::size_t seen = events.size();
        while (!done) {
            pollfd input = {econf_supervisor_fd(s), POLLIN, 0};
            (void)poll(&input, 1, 1);
            ASSERT_EQ(econf_supervisor_process(s), 1);
            (void)push();
            if (events.size() > seen && events.back() == "joined" && state != "stale") {
                EXPECT_EQ(state, present);
            }
        }
        seen = events.size();
        EXPECT_TRUE(messages < 4 || state == present) << state << " is not " << present;
        daemon.stop();
        daemon.start();
        ++life;
    }
    ASSERT_EQ(turn_until([&] { return events.back() != "joined"; }), 1);
    EXPECT_GT(pulled, lives / 3);
    for (std::size_t i = 0; i < events.size(); ++i) {
        EXPECT_EQ(events[i] == "joined", i % 2 == 0);
    }
    EXPECT_LE(open_descriptors(), descriptors + 1); // the watch
}

} // namespace
