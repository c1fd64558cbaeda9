// A supervised plugin in the long run. It answers while it asks, joins every daemon that follows a
// killed one, and lets the timer of its host go on while a daemon is stopped.
//
//     supervised CONFSIM ASKED KILLS PERIOD [SEED]
//
// ASKED is the number of requests in each row of the first test, KILLS that of the second, and
// PERIOD the milliseconds of the timer in the third. Relies on confsim and on the played daemon.
#include "supervised.h"

#include "client_table.h"
#include "confsvc.hpp"
#include "memory.h"
#include "sandbox.h"

#include <fcntl.h>
#include <random>
#include <sys/mman.h>

using namespace test;

namespace {

std::mt19937 luck; // main() seeds it

int below(int limit)
{
    return static_cast<int>(luck() % static_cast<unsigned>(limit));
}

// ---- requests that collide ---------------------------------------------------------------------

struct collisions {
    const char *name;
    bool pulls;
    bool nested; // callbacks make a request, too
    int burst;
};

// Asks for the status again and again, at times between a request of the plugin and its reply;
// until the end of the connection, with a note when all is answered. Returns how many requests met.
int ask(Peer &peer, int burst, unsigned seed, std::atomic<bool> &all_answered)
{
    std::minstd_rand random(seed); // this is another thread
    int asked = 0, answered = 0, met = 0;
    const auto ask_more = [&] {
        std::string requests;
        for (int i = 0; i < burst && asked < plan.asked; ++i) {
            requests += status_request(++asked);
        }
        peer.send(requests);
    };
    for (;;) {
        if (answered == asked && asked < plan.asked) {
            usleep(static_cast<unsigned>(random() % 2000) * static_cast<unsigned>(burst));
            ask_more();
        }
        const std::string body = peer.receive();
        if (body.starts_with("<rpc>")) {
            if (random() % 2 == 0) {
                ask_more();
            }
            met += asked > answered ? 1 : 0;
            peer.send(
                framed(reply("<result><data><d/></data></result>", std::to_string(id_of(body)))));
        } else if (body.empty()) {
            return met;
        } else {
            const std::string id = std::to_string(++answered);
            const std::string data = "<data><n>" + id + "</n></data>";
            EXPECT_EQ(body, reply("<result>" + state_path + data + "</result>", id));
            all_answered = answered == plan.asked;
        }
    }
}

TEST_F(Supervisor, AnswersWhileItAsks)
{
    const collisions kinds[] = {{"pushes", false, false, 1},
                                {"pulls", true, false, 1},
                                {"callbacks that push", false, true, 1},
                                {"bursts, all pull", true, true, 30}};
    for (const collisions &kind : kinds) {
        for (const int period : {2, 10, 100}) {
            SCOPED_TRACE(kind.name);
            ASSERT_NO_FATAL_FAILURE(join());
            econf_plugin_config_debug(DBG_WARN, 1);
            clear_debug_file();
            int requests = 0, callbacks = 0;
            const auto request = [&] {
                xmlNode *list = nullptr;
                const int before = callbacks;
                EXPECT_EQ(kind.pulls ? econf_plugin_pull(0, "/demo", &list) : push(), 0);
                EXPECT_EQ(list_of(list), kind.pulls ? "<d/>" : "");
                EXPECT_EQ(callbacks, before) << "called from inside a request";
                xmlFreeNodeList(list);
                ++requests;
            };
            act.produce = [&](xmlNode * /*input*/) {
                return parse("<n>" + std::to_string(callbacks + 1) + "</n>");
            };
            act.inside = [&] {
                called.clear();
                ++callbacks;
                if (kind.nested) {
                    request();
                }
            };
            std::atomic<bool> done = false;
            int met = 0;
            const auto seed = static_cast<unsigned>(luck());
            daemon.play([&](Peer &asking) { met = ask(asking, kind.burst, seed, done); });
            (void)live(
                econf_supervisor_fd(s), period, [&] { return econf_supervisor_process(s); },
                request, [&] { return done.load(); });
            econf_supervisor_destroy(std::exchange(s, nullptr));
            daemon.forget_connection();
            EXPECT_EQ(callbacks, plan.asked);
            EXPECT_EQ(debug_lines(), strings{});
            std::printf("  each %3d ms, %-20s %5d of %d answered, %5d requests, %5d met\n", period,
                        kind.name, callbacks, plan.asked, requests, met);
            events.clear();
        }
    }
}

// ---- sudden deaths -----------------------------------------------------------------------------

using entries = std::map<std::string, std::string>;

// A confsim with a configuration, which does what it is told.
class Confsim {
public:
    explicit Confsim(const entries &configured)
    {
        std::ofstream file("/var/tmp/config.xml");
        file << "<config>" << (configured.empty() ? "" : "<list xmlns='urn:soak'>");
        for (const auto &[name, value] : configured) {
            file << "<entry><name>" << name << "</name><value>" << value << "</value></entry>";
        }
        file << (configured.empty() ? "" : "</list>") << "</config>" << std::flush;
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        process_ = start_process([&] {
            dup2(ends[0], STDIN_FILENO);
            dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
            return execl(plan.confsim, "confsim", "--dir", "/var/tmp/confd", "--config",
                         "/var/tmp/config.xml", "--timeout", "60", nullptr);
        });
        close(ends[0]);
        commands_.reset(ends[1]);
    }
    Confsim(const Confsim &) = delete;
    Confsim &operator=(const Confsim &) = delete;
    ~Confsim()
    {
        kill(process_, SIGKILL);
        int status = -1;
        waitpid(process_, &status, 0);
        EXPECT_EQ(status, SIGKILL);
    }
    void tell(const std::string &lines) const
    {
        EXPECT_EQ(write(commands_.get(), lines.data(), lines.size()), ssize(lines));
    }

private:
    pid_t process_;
    support::unique_fd commands_;
};

// Some commits of random changes with questions between them; `configured` follows.
std::string traffic(entries &configured, int most)
{
    std::string lines;
    for (int i = below(most); i > 0; --i) {
        const std::string name = std::to_string(below(4)), value = std::to_string(luck());
        const std::string path = "/soak:list/entry[name=\"" + name + "\"]";
        if (configured.count(name) > 0 && below(2) == 0) {
            configured.erase(name);
            lines += "delete " + path;
        } else {
            configured[name] = value;
            lines += "set " + path + "/value " + value;
        }
        lines += below(2) == 0 ? "\ncommit\nstatus /soak:state\n" : "\n";
    }
    return lines + "try commit\n";
}

TEST_F(Fixture, JoinsEveryDaemon)
{
    econf_plugin_config_debug(DBG_ERROR, 0);
    entries state;
    bool is_known = false; // all of it
    int joined = 0, lost = 0, requests = 0;
    long long late = 0;
    confsvc::plugin plugin("soak");
    plugin
        .on_joined([&] {
            ++joined;
            const confsvc::elements list = confsvc::pull("/soak:list");
            for (const confsvc::node entry : list->children("entry")) {
                state[std::string(entry.at("name").as_text())] = entry.at("value").as_text();
            }
            is_known = true;
        })
        .on_change("/soak:list/entry",
                   [&](const confsvc::change &change) {
                       if (change.removed()) {
                           state.erase(change.key("name"));
                       } else {
                           const confsvc::elements entry = change.values();
                           state[change.key("name")] = entry->at("value").as_text();
                       }
                   })
        .on_status("/soak:state",
                   [&](const confsvc::query & /*query*/, confsvc::output &out) {
                       out.open("state").add("size", state.size());
                   })
        .on_lost([&](std::string_view /*why*/) { // what was known is of no use any more
            ++lost;
            state.clear();
            is_known = false;
        })
        .on_failure([](std::string_view /*where*/, std::string_view /*what*/) {});
    plugin.start();
    const auto live_until = [&](const std::function<bool()> &is_over) {
        const timing longest = live(
            plugin.fd(), 1, [&] { return plugin.process() ? 1 : 0; },
            [&] {
                confsvc::output data;
                data.open("counter").add("n", ++requests);
                (void)confsvc::try_push("/soak:counter", data);
            },
            is_over);
        late = std::max(late, longest.late);
    };
    const auto live_for = [&](int milliseconds) {
        live_until([end = monotonic_time() + milliseconds] { return monotonic_time() >= end; });
    };

    entries configured;
    int early = 0, empty = 0, memory_count = 0;
    long long memory[2] = {};
    int descriptors[2] = {};
    for (int life = 1; life <= plan.kills; ++life) {
        const int kind = below(4);
        for (int i = kind == 0 ? 0 : 4; kind < 3 && i > 0; --i) { // else as the last one had it
            configured[std::to_string(below(4))] = std::to_string(luck());
        }
        configured = kind == 0 ? entries{} : configured;
        const bool is_measured = life == plan.kills / 10 || life == plan.kills;
        const int joined_before = joined;
        const Confsim confsim(configured);
        if (!is_measured && below(4) == 0) { // killed at any moment of the start
            ++early;
            live_for(below(25));
            continue;
        }
        empty += configured.empty() ? 1 : 0;
        confsim.tell("wait soak 60\n" + traffic(configured, 6));
        const auto joins = [&] { return joined > joined_before && is_known; };
        live_until([&, end = monotonic_time() + 60000] {
            return (joins() && state == configured) || monotonic_time() > end;
        });
        EXPECT_TRUE(joins()) << plugin.reason();
        EXPECT_EQ(state, configured);
        if (is_measured) {
            memory[memory_count] = memory_now();
            descriptors[memory_count++] = open_descriptors();
        }
        entries ignored = configured;
        confsim.tell(traffic(ignored, 20));
        live_for(below(10));
    }
    live_until([&] { return joined == lost; });
    std::printf(
        "  %d kills, %d of them during the start; %d joinings, after %d of them the "
        "configuration was empty; %d requests\n"
        "  growth from restart %d to %d: %lld bytes, %d descriptors; a tick each ms was at most "
        "%lld ms late\n",
        plan.kills, early, joined, empty, requests, plan.kills / 10, plan.kills,
        memory[1] - memory[0], descriptors[1] - descriptors[0], late);
    EXPECT_GE(joined, plan.kills - early);
    EXPECT_EQ(descriptors[0], descriptors[1]);
    EXPECT_LE(SOAK_MEASURES_MEMORY * (memory[1] - memory[0]), growth_limit);
    alarm(0);
}

} // namespace

int main(int count, char **arguments)
{
    without_allocator_cache(arguments);
    ::testing::InitGoogleTest(&count, arguments);
    GTEST_FLAG_SET(break_on_failure, true);
    std::string error;
    sandbox::options options;
    options.keep.assign(arguments + 1, arguments + std::min(count, 2));
    EXPECT_GE(count, 5) << "supervised CONFSIM ASKED KILLS PERIOD [SEED]";
    EXPECT_TRUE(sandbox::enter(options, error)) << error;
    (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const auto number = [&](int which) { return std::stoul(arguments[which]); };
    plan = {arguments[1], static_cast<int>(number(2)), static_cast<int>(number(3)),
            static_cast<int>(number(4))};
    const unsigned seed = count > 5 ? static_cast<unsigned>(number(5)) : std::random_device{}();
    std::printf("supervised: seed %u\n", seed);
    luck.seed(seed);
    return RUN_ALL_TESTS();
}
