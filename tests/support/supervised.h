// A supervised demo plugin and the fake daemon that it joins. Waits end with what is waited for; a
// hang ends in the guard of the fixture.
#ifndef CONFSVC_TEST_SUPERVISED_H
#define CONFSVC_TEST_SUPERVISED_H

#include "conf_supervisor.h"
#include "demo_plugin.h"

#include <atomic>
#include <map>
#include <poll.h>
#include <utility>

namespace test {

inline constexpr int never = 3600000; // milliseconds that no test waits for
inline const std::string ok = "<result/>";
inline const std::string state_path = "<path>/demo/state</path>";

inline void accept_plugin(Peer &peer)
{
    peer.answer(ok);
    peer.answer(ok);
}

inline std::string status_request(int id)
{
    return framed(with_id(subscribe(state_path), std::to_string(id)));
}

inline int id_of(const std::string &body)
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

} // namespace test

#endif
