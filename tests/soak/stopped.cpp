// A daemon that is stopped by SIGSTOP at each point of its work in turn, and goes on later. The
// timer of the plugin's host goes on meanwhile, and afterwards the plugin has the daemon's state.
// Part of the program `supervised`.
//
// The host lets the daemon go on after some ticks: a plugin that waited for it would wait for ever,
// whatever the speed of the machine. How late a tick was is reported as a part of the limit.
#include "supervised.h"

#include "client_table.h"

#include <sys/mman.h>

using namespace test;

namespace {

constexpr int ticks_of_a_stop = 3;
constexpr int statuses = 20;     // more than the socket holds
constexpr long long tight = 100; // milliseconds; smaller limits are less than what machines stutter

// Told by the daemon.
struct news {
    int points; // passed so far
    int stop_at;
    char where[80];
    bool is_through, is_over;
} *told = nullptr;

// ---- the daemon --------------------------------------------------------------------------------

void point(const std::string &name)
{
    if (++told->points == told->stop_at) {
        (void)name.copy(told->where, sizeof told->where - 1);
        (void)raise(SIGSTOP);
    }
}

void reply_to(Peer &peer, const std::string &request, const std::string &configuration)
{
    const std::string method = request.substr(13, request.find("</method>") - 13);
    const bool reads = method == "pull";
    const std::string content = reads ? "<result><data>" + configuration + "</data></result>" : ok;
    const std::string bytes = framed(reply(content, std::to_string(id_of(request))));
    point("before the reply to " + method);
    peer.send(bytes.substr(0, bytes.size() / 2));
    point("inside the reply to " + method);
    peer.send(bytes.substr(bytes.size() / 2));
    point("after the reply to " + method);
}

// Takes requests, and behind the first one that the active plugin makes asks for its status and
// changes the configuration.
void serve(Peer &peer, int &configuration)
{
    int requests = 0, answered = 0;
    for (std::string body; !(body = peer.receive()).empty();) {
        if (body.starts_with("<rpc>")) {
            reply_to(peer, body, "<v>" + std::to_string(configuration) + "</v>");
            if (++requests == 4) { // register, activate, and what joined() pulls, are before it
                for (int id = 1; id <= statuses; ++id) {
                    peer.send(status_request(id));
                }
                point("with replies unread");
            }
            continue;
        }
        EXPECT_EQ(id_of(body), ++answered);
        if (answered == statuses) {
            configuration = 2;
            const std::string change = framed(with_id(config("/demo"), "21"));
            peer.send(change.substr(0, 40));
            point("inside a change");
            peer.send(change.substr(40));
            point("before the reply to a change");
        }
        told->is_through = answered > statuses;
    }
}

int be_daemon(FakeDaemon &sockets)
{
    int configuration = 1;
    while (!told->is_over) {
        point("before the connection");
        sockets.forget_connection();
        Peer &peer = sockets.connection();
        point("before the registration");
        serve(peer, configuration);
    }
    return 0;
}

// ---- the plugin --------------------------------------------------------------------------------

TEST_F(Supervisor, StoppedDaemonHoldsNobody)
{
    econf_plugin_config_debug(DBG_ERROR, 0);
    told = static_cast<news *>(
        mmap(nullptr, sizeof *told, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const int limit = 3 * plan.period;
    std::string state;
    const auto pull = [&] {
        xmlNode *list = nullptr;
        state.clear(); // when that fails, a tick tries again
        if (econf_plugin_pull(0, "/demo", &list) == 0) {
            state = list_of(list);
        }
        xmlFreeNodeList(list);
    };
    inside["joined"] = pull;
    act.produce = nodes_of("<big>" + std::string(100000, 'x') + "</big>");
    act.inside = [&] {
        if (called.starts_with("config")) {
            pull();
        }
        called.clear();
    };
    int stops = 0;
    for (bool has_stopped = true; has_stopped; stops += has_stopped ? 1 : 0) {
        *told = {0, stops + 1, "", false, false};
        has_stopped = false;
        state.clear(), events.clear();
        const pid_t process = start_process([&] { return be_daemon(daemon); });
        create({.join_limit = limit,
                .answer_limit = limit,
                .retry_first = plan.period,
                .retry_most = plan.period});
        int left = 0; // ticks before the daemon goes on
        const auto tick = [&] {
            int status = 0;
            if (waitpid(process, &status, WNOHANG | WUNTRACED) == process) {
                EXPECT_TRUE(WIFSTOPPED(status)) << status;
                has_stopped = true;
                left = ticks_of_a_stop;
            } else if (left > 0 && --left == 0) {
                kill(process, SIGCONT);
            }
            state.empty() ? pull() : (void)push();
        };
        const timing longest = live(
            econf_supervisor_fd(s), plan.period, [&] { return econf_supervisor_process(s); }, tick,
            [&] { return told->is_through && left == 0 && state == "<v>2</v>"; });
        told->is_over = true;
        econf_supervisor_destroy(std::exchange(s, nullptr));
        int status = 0;
        while (waitpid(process, &status, WUNTRACED) == process && WIFSTOPPED(status)) {
            kill(process, SIGCONT); // its point was behind the end
        }
        EXPECT_EQ(status, 0);
        if (!has_stopped) {
            break;
        }
        std::printf("  %-32s tick at most %4lld ms late (%2lld %% of the limit), a request took "
                    "%4lld ms; joined %zu times\n",
                    told->where, longest.late, 100 * longest.late / limit, longest.tick,
                    (events.size() + 1) / 2);
        if (limit >= tight) {
            EXPECT_LE(longest.late, limit + limit / 2);
            EXPECT_LE(longest.tick, limit + limit / 2);
        }
    }
    EXPECT_GE(stops, 17); // without those that depend on which requests come
    std::printf("  stopped at %d points\n", stops);
    (void)munmap(told, sizeof *told);
}

} // namespace
