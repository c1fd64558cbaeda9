// The supervised loop: what comes during a request is kept, the daemon may come, go and hang, and
// every callback may end it all. Waits end with what is waited for; a hang ends in the guard of the
// fixture.
#include "conf_supervisor.h"
#include "demo_plugin.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <poll.h>
#include <random>
#include <sys/wait.h>

namespace {

using namespace test;

constexpr int never = 3600000; // milliseconds that no test waits for
const std::string ok = "<result/>";
const std::string state_path = "<path>/demo/state</path>";

void accept_plugin(Peer &peer)
{
    peer.answer(ok);
    peer.answer(ok);
}

std::string status_request(int id)
{
    return framed(with_id(subscribe(state_path), std::to_string(id)));
}

int id_of(const std::string &body)
{
    return std::stoi(body.substr(body.rfind("<id>") + 4));
}

// The numbers of the options.
struct numbers_of {
    int start_mode = 0;
    int join_limit = 0;
    int answer_limit = 0;
    int retry_first = 0;
    int retry_most = 0;
};

class Supervisor : public PluginFixture {
public:
    void happened(const std::string &event)
    {
        events.push_back(event);
        if (const auto action = inside[event.substr(0, event.find(':'))]) {
            action();
        }
    }

protected:
    Supervisor() { act = {}, called.clear(), events.clear(); }
    ~Supervisor() override { econf_supervisor_destroy(s); }

    void create(numbers_of given = {})
    {
        const econf_supervisor_options_t options = {
            given.start_mode,
            given.join_limit,
            given.answer_limit,
            given.retry_first,
            given.retry_most,
            [](void *user) { static_cast<Supervisor *>(user)->happened("joined"); },
            [](void *user, const char *why) {
                static_cast<Supervisor *>(user)->happened("lost: " + std::string(why));
            },
            this};
        // The supervisor keeps copies: the caller's tables may go.
        std::string path = "/demo/state";
        std::vector<econf_status_cb_info_t> states = {
            {path.c_str(), subscriptions().status_cbs->callback}, {}};
        econf_plugin_subpub_info_t info = subscriptions();
        info.status_cbs = states.data();
        s = econf_supervisor_create("demo", &info, &options);
        ASSERT_NE(s, nullptr) << take_errors();
        states[0].callback = nullptr;
        path = "/overwritten";
    }

    [[nodiscard]] bool is_readable() const
    {
        pollfd input = {econf_supervisor_fd(s), POLLIN, 0};
        return poll(&input, 1, 0) == 1;
    }
    // Turns until the condition holds; the result of the last turn.
    int turn_until(const std::function<bool()> &condition)
    {
        int result = 1;
        while (result == 1 && !condition()) {
            pollfd input = {econf_supervisor_fd(s), POLLIN, 0};
            (void)poll(&input, 1, 20); // a condition may come true elsewhere
            result = econf_supervisor_process(s);
        }
        return result;
    }
    void join(numbers_of options = {})
    {
        daemon.play(accept_plugin);
        create(options);
        ASSERT_EQ(turn_until([&] { return !events.empty(); }), 1);
        peer = &daemon.finish();
        ASSERT_EQ(events, strings{"joined"});
    }
    static int push()
    {
        xmlNode *data = parse("<counter>1</counter>");
        const int result = econf_plugin_push("/demo/state", data);
        xmlFreeNode(data);
        return result;
    }
    [[nodiscard]] std::string reason() const { return econf_supervisor_reason(s); }

    econf_supervisor_t *s = nullptr;
    strings events;
    std::map<std::string, std::function<void()>> inside; // the events, called after the note
};

// ---- requests are kept -------------------------------------------------------------------------

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
    EXPECT_EQ(answered.size() + answered.back(), 2U * total);
}

// ---- joining and joining again -----------------------------------------------------------------

TEST_F(Supervisor, SaysWhyItIsNotJoined)
{
    const std::string at = " at /var/tmp/daemon/confd.plugin.socket: ";
    struct {
        std::function<void()> prepare;
        std::string wanted;
    } const rows[] = {
        {[&] { daemon.play([](Peer &p) { p.answer(error("7", "the name is taken")); }); },
         "The daemon refuses: the name is taken"},
        {[&] { daemon.play([](Peer &p) { p.answer(ok), p.answer(error("8", "not now")); }); },
         "The daemon refuses: not now"},
        {[&] { daemon.play([](Peer &p) { p.receive(), p.close(); }); },
         "The daemon has closed the connection."},
        {[&] { daemon.play([](Peer &p) { p.receive(); }); }, "The daemon does not answer."},
        {[&] { daemon.stop(); }, "There is no daemon" + at + "Connection refused."},
        {[] { std::filesystem::remove("/var/tmp/daemon/confd.plugin.socket"); },
         "There is no daemon" + at + "No such file or directory."},
        {[] { std::filesystem::remove_all("/var/tmp/daemon"); },
         "There is no daemon" + at + "No such file or directory."},
    };
    for (const auto &row : rows) {
        create({.join_limit = 30, .retry_first = never});
        row.prepare();
        const std::string before = reason();
        EXPECT_EQ(turn_until([&] { return reason() != before; }), 1);
        EXPECT_EQ(reason(), row.wanted);
        EXPECT_EQ(events, strings{});
        econf_supervisor_destroy(std::exchange(s, nullptr));
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

// Each daemon lives for a random number of messages, with a configuration of its own, which is
// empty at times. What the plugin has after each start is what that daemon has.
TEST_F(Supervisor, StateFollowsEveryDaemon)
{
    const char *const repeats = std::getenv("CONFSVC_RESTARTS");
    const int lives = repeats == nullptr ? 100 : std::atoi(repeats);
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

// ---- callbacks ---------------------------------------------------------------------------------

// What ends a plugin, from wherever it is called.
TEST_F(Supervisor, EndsInsideEveryCallback)
{
    const auto destroy = [&] { econf_supervisor_destroy(std::exchange(s, nullptr)); };
    const auto stop = [&] { econf_supervisor_stop(s); };
    const auto nested = [&] {
        EXPECT_EQ(econf_supervisor_process(s), 1);
        EXPECT_EQ(econf_supervisor_run(s), -1);
        stop();
    };
    const std::function<void()> ends[] = {destroy, stop, econf_plugin_close, nested};
    const char *const places[] = {"joined", "config", "kick-off", "work", "lost"};
    for (const auto &end_it : ends) {
        for (const std::string place : places) {
            SCOPED_TRACE(place);
            ASSERT_NO_FATAL_FAILURE(join());
            const bool closes_nothing = place == "lost" && &end_it == &ends[2];
            inside[place] = end_it;
            if (place == "joined" || place == "lost") {
                daemon.stop();
                daemon.start();
                if (place == "joined" || closes_nothing) {
                    daemon.play(accept_plugin);
                }
            } else if (place == "work") {
                const auto work = [](void *self) {
                    static_cast<Supervisor *>(self)->happened("work");
                };
                EXPECT_EQ(econf_supervisor_post(s, work, this), 0);
            } else {
                act.inside = [&] { happened(place); };
                peer->send(framed(place == "config" ? config("/demo/a") : kick_off));
            }
            int result = 1;
            while (result == 1 && !(closes_nothing && events.size() > 2)) {
                result = econf_supervisor_process(s);
            }
            EXPECT_EQ(result, closes_nothing ? 1 : 0);
            EXPECT_EQ(s == nullptr, &end_it == &ends[0]);
            econf_supervisor_destroy(std::exchange(s, nullptr));
            EXPECT_EQ(get_plugin_context(), nullptr);
            daemon.stop();
            daemon.start();
            act = {}, inside.clear(), events.clear();
        }
    }
}

TEST_F(Supervisor, KickOffIsAnsweredAndEndsIt)
{
    ASSERT_NO_FATAL_FAILURE(join());
    peer->send(framed(kick_off));
    EXPECT_EQ(econf_supervisor_run(s), 0);
    EXPECT_EQ(called, "kick-off");
    EXPECT_EQ(peer->receive(), succeeded());
    EXPECT_EQ(reason(), "The daemon has kicked the plugin off.");
    EXPECT_EQ(econf_supervisor_process(s), 0);
}

// What an inactive plugin is sent waits, and does not keep the descriptor readable.
TEST_F(Supervisor, InactivePluginDoesNotSpin)
{
    ASSERT_NO_FATAL_FAILURE(join());
    (void)request_of([] { econf_plugin_deactivate(); });
    peer->send(status_request(1));
    for (int turns = 0; is_readable(); ++turns) {
        ASSERT_EQ(econf_supervisor_process(s), 1);
        ASSERT_LT(turns, 10);
    }
    EXPECT_EQ(called, "");
    (void)request_of([] { EXPECT_EQ(econf_plugin_activate(ACTIVATE_WITH_NONE), 0); });
    ASSERT_EQ(turn_until([] { return !called.empty(); }), 1);
    EXPECT_EQ(id_of(peer->receive()), 1);
}

// ---- other threads, signals, processes ---------------------------------------------------------

TEST_F(Supervisor, WorkOfManyThreadsIsDoneInOrder)
{
    static constexpr int threads = 4, each = 250;
    static std::vector<int> done[threads];
    static std::atomic<int> all;
    all = 0;
    daemon.stop(); // work is done without one
    create({.retry_first = never});
    {
        std::vector<std::jthread> posting;
        for (int thread = 0; thread < threads; ++thread) {
            posting.emplace_back([&, thread] {
                for (int i = 0; i < each; ++i) {
                    const auto work = [](void *arg) {
                        const auto number = static_cast<int>(reinterpret_cast<long>(arg));
                        done[number / each].push_back(number % each);
                        ++all;
                    };
                    const long number = thread * each + i;
                    EXPECT_EQ(econf_supervisor_post(s, work, reinterpret_cast<void *>(number)), 0);
                }
            });
        }
        ASSERT_EQ(turn_until([] { return all == threads * each; }), 1);
    }
    for (std::vector<int> &of_thread : done) {
        EXPECT_TRUE(std::is_sorted(of_thread.begin(), of_thread.end()));
        EXPECT_EQ(std::exchange(of_thread, {}).size(), 0U + each);
    }
    // What is posted after a stop is forgotten, and releases nothing but itself.
    econf_supervisor_stop(s);
    EXPECT_EQ(econf_supervisor_post(
                  s, [](void *) { ++all; }, nullptr),
              0);
    EXPECT_EQ(econf_supervisor_process(s), 0);
    EXPECT_EQ(all, threads * each);
}

TEST_F(Supervisor, StopsFromASignalHandler)
{
    static econf_supervisor_t *stopped;
    ASSERT_NO_FATAL_FAILURE(join());
    stopped = s;
    const auto before = std::signal(SIGUSR1, [](int) { econf_supervisor_stop(stopped); });
    const pthread_t loop = pthread_self();
    const std::jthread other([loop] { pthread_kill(loop, SIGUSR1); });
    EXPECT_EQ(econf_supervisor_run(s), 0);
    (void)std::signal(SIGUSR1, before);
}

TEST_F(Supervisor, ChildHasNone)
{
    ASSERT_NO_FATAL_FAILURE(join());
    const pid_t child = fork();
    if (child == 0) {
        const auto work = [](void *) {};
        bool right = econf_supervisor_process(s) == -1 && econf_supervisor_run(s) == -1 &&
                     econf_supervisor_post(s, work, nullptr) == -1;
        econf_supervisor_stop(s);
        econf_plugin_subpub_info_t info{};
        econf_supervisor_t *const own = econf_supervisor_create("child", &info, nullptr);
        econf_supervisor_destroy(s);
        right = right && econf_supervisor_post(own, work, nullptr) == 0;
        econf_supervisor_destroy(own);
        _exit(right ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    peer->send(status_request(5));
    ASSERT_EQ(turn_until([] { return !called.empty(); }), 1);
    EXPECT_EQ(id_of(peer->receive()), 5);
}

TEST_F(Supervisor, RefusesWithAReason)
{
    econf_plugin_subpub_info_t info{};
    const auto refusal = [&](const char *name, econf_plugin_subpub_info_t *given) {
        EXPECT_EQ(econf_supervisor_create(name, given, nullptr), nullptr);
        return take_errors();
    };
    clear_debug_file();
    EXPECT_EQ(refusal(nullptr, &info), "No supervisor is made: name or info is null.");
    EXPECT_EQ(refusal("demo", nullptr), "No supervisor is made: name or info is null.");
    create();
    EXPECT_EQ(refusal("demo", &info), "No supervisor is made: the process has one.");
    econf_supervisor_destroy(std::exchange(s, nullptr));
    start();
    EXPECT_EQ(refusal("demo", &info), "No supervisor is made: the process has a plugin.");
    end();
    confd_plugin_callback_t hooks{};
    get_plugin_from_hash()->confd_hooks = &hooks;
    EXPECT_EQ(refusal("demo", &info), "No supervisor is made: the process is the daemon's own.");
    get_plugin_from_hash()->confd_hooks = nullptr;
    econf_supervisor_stop(nullptr);
    EXPECT_EQ(econf_supervisor_fd(nullptr) + econf_supervisor_process(nullptr) +
                  econf_supervisor_run(nullptr) + econf_supervisor_post(nullptr, nullptr, nullptr),
              -4);
    EXPECT_STREQ(econf_supervisor_reason(nullptr), "There is no supervisor.");
}

} // namespace
