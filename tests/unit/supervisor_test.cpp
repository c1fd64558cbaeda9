// The supervisor under its host: callbacks that end it, other threads, signals and processes.
#include "supervised.h"

#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>

namespace {

using namespace test;

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
                EXPECT_EQ(econf_supervisor_post(s, work, this), 0); // not done after an end
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
    EXPECT_EQ(reason(), "It was kicked off.");
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

// A process that may have no descriptor may watch none either.
TEST_F(Supervisor, RunEndsWhereNothingCanBeWatched)
{
    ASSERT_NO_FATAL_FAILURE(join());
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    act.inside = [&] {
        const rlimit none{0, usual.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    };
    peer->send(framed(config("/demo/a")));
    EXPECT_EQ(econf_supervisor_run(s), -1);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_EQ(peer->receive(), succeeded());
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

TEST_F(Supervisor, ErrorBelongsToTheRequestBeingHandled)
{
    inside["joined"] = [] { econf_plugin_error(9, "too early"); };
    ASSERT_NO_FATAL_FAILURE(join());
    act.result = 5;
    peer->send(status_request(3));
    ASSERT_EQ(turn_until([] { return !called.empty(); }), 1);
    EXPECT_EQ(peer->receive(), reply(error("5", default_error), "3"));
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
    s = econf_supervisor_create("demo", &info, nullptr); // with all defaults
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(econf_supervisor_post(s, nullptr, nullptr), -1);
    econf_supervisor_destroy(std::exchange(s, nullptr));
    econf_supervisor_stop(nullptr);
    EXPECT_EQ(econf_supervisor_fd(nullptr), -1);
    EXPECT_EQ(econf_supervisor_process(nullptr), -1);
    EXPECT_EQ(econf_supervisor_run(nullptr), -1);
    EXPECT_EQ(econf_supervisor_post(nullptr, nullptr, nullptr), -1);
    EXPECT_STREQ(econf_supervisor_reason(nullptr), "There is no supervisor.");
}

} // namespace
