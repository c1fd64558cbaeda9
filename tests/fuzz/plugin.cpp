// A whole plugin under a hostile daemon. In the target "loop" the daemon registers and activates it
// soundly and then sends what it likes; in "exchange" each of the plugin's own requests is met by
// any answer.
//
// The daemon has no thread: the library's waits are replaced at link time, and give it its turns.
#include "both_interfaces.h"
#include "conf_plugin/plugin_internal.h"
#include "fuzz.h"

#include <cerrno>
#include <map>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

#ifdef FUZZ_EXCHANGE
constexpr bool is_sound_at_first = false;
#else
constexpr bool is_sound_at_first = true;
#endif

using fuzz::rpc;

std::string reply(const std::string &content)
{
    return test::reply(content, "%i");
}

const fuzz::forms answers = {
    reply("<result/>"),
    reply("<result><data>%x</data></result>"),
    reply("<result><prev>%p</prev><next>%p</next>%x</result>"),
    reply("<error><code>%n</code><message>%t</message></error>"),
    "<!DOCTYPE r [<!ENTITY e '&f;x'><!ENTITY f '<a>x</a>'>]>" +
        reply("<result><data xml:lang='x'>&e;%x</data></result>"),
    "<reply>%x<id>%i</id>%x</reply>",
};
const fuzz::forms requests = {
    rpc("publish", "<type>config</type><session-id>%n</session-id><callback>%n</callback><info>"
                   "<oper-type>%n</oper-type><more-flag>%n</more-flag><priority>%n</priority>"
                   "<path>%p</path></info>"),
    rpc("publish", "<type>operate</type><callback>%n</callback><info>%x</info>"),
    rpc("subscribe", "<session-id>%n</session-id><path>%p</path><filter>%t</filter>"
                     "<callback>%n</callback>"),
    "<rpc><method>kickoff</method><params/><id>%i</id></rpc>",
    rpc("%t", "%x"),
    "<!DOCTYPE rpc [<!ENTITY e '<a>x</a>'>]>" +
        rpc("publish", "<type>operate</type><callback>3</callback><info>&e;%x</info>"),
    "%x",
};

// It lives as long as an input; its listening socket as long as the program.
struct hostile_daemon {
    static constexpr unsigned long first_id = 3000000000; // other numbers come from elsewhere, too

    fuzz::input &in;
    const int listener;
    bool is_sound = is_sound_at_first;
    std::unique_ptr<test::Peer> connection = {};
    unsigned long last_id = first_id;
    std::string asked = {}; // the id that the plugin waits for
    std::map<unsigned long, int> replies = {};

    [[nodiscard]] bool accept()
    {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        connection = fd < 0 ? nullptr : std::make_unique<test::Peer>(fd);
        return connection != nullptr;
    }
    void turn()
    {
        if (!connection) {
            (void)accept();
            return;
        }
        for (const std::string &body : connection->received()) {
            take(body);
        }
        if (is_sound && !asked.empty()) {
            send(in.message({answers[0]}, asked)); // damaged now and then
        } else if (in.ended() || in.rarely(64)) {
            connection.reset();
        } else if (!asked.empty() && !in.rarely(4)) {
            send(in.message(answers, asked));
        } else {
            send(in.message(requests, std::to_string(++last_id)));
        }
    }
    void send(const std::string &bytes)
    {
        asked.clear();
        const std::size_t size = std::min<std::size_t>(bytes.size(), 100000);
        (void)::send(connection->fd(), bytes.data(), size, MSG_NOSIGNAL);
    }
    void take(const std::string &body)
    {
        const std::size_t at = body.rfind("<id>");
        EXPECT_NE(at, std::string::npos) << body;
        const std::string id = body.substr(at + 4, body.find('<', at + 4) - at - 4);
        if (body.starts_with("<rpc>") && body.ends_with("</rpc>")) {
            asked = id;
            return;
        }
        EXPECT_TRUE(body.starts_with("<reply>") && body.ends_with("</reply>")) << body;
        const unsigned long number = std::strtoul(id.c_str(), nullptr, 10);
        EXPECT_TRUE(number < first_id || number > last_id || ++replies[number] == 1) << body;
    }
};

hostile_daemon *peer;
int depth = 0; // of callbacks

// Registers and activates, by one interface or the other.
void start()
{
    if (peer->in.rarely(4)) {
        (void)test::initialise_by_older_interface();
    } else {
        (void)test::initialise();
    }
    (void)econf_plugin_activate(static_cast<int>(peer->in.below(3)));
}

xmlNode *element(fuzz::input &in)
{
    return test::parse(in.PickValueInArray<const char *>(
        {"<data><x/></data>", "<data><x>a&amp;b</x></data>", "<data><x>&lt;c/&gt;</x></data>"}));
}

// What a plugin can do, inside of callbacks and outside.
void act(fuzz::input &in)
{
    const std::string text = in.path();
    const char *path = text.c_str();
    xmlNode *data = element(in);
    xmlNode *list = nullptr;
    const std::function<int()> calls[] = {
        [&] { return econf_plugin_pull(0, path, &list); },
        [&] { return econf_plugin_pull(1, path, &list); },
        [&] { return econf_plugin_locate(0, path, &list); },
        [&] { return econf_plugin_locate(1, path, &list); },
        [&] { return econf_plugin_push(path, data); },
        [&] { return econf_plugin_config_deployment(path, 1, data); },
        econf_plugin_save_deployment,
        [] { return econf_plugin_copy_running_to_deployment(1); },
        [&] { return econf_plugin_activate(static_cast<int>(in.below(3))); },
        [] { return econf_plugin_deactivate(), 0; },
        [&] { return econf_plugin_error(static_cast<int>(in.below(3)), "%s%n"), 0; },
        [] { return econf_plugin_error(7, nullptr), 0; },
        [] { return econf_plugin_run(), 0; },
        [] { return econf_plugin_close(), start(), 0; },
        [] { return econf_plugin_close(), 0; },
    };
    const std::size_t which = in.below(std::size(calls));
    const int result = calls[which]();
    EXPECT_TRUE(result == 0 || (result == -1 && list == nullptr));
    xmlFreeNode(data);
    xmlFreeNodeList(list);
    // The first eight are exchanges: bytes left behind by one would wake nobody.
    const conf_plugin_context_t *context = get_plugin_context();
    EXPECT_TRUE(depth > 0 || which >= 8 || context == nullptr ||
                context->recv_buf->used + context->send_buf->used == 0);
}

template <typename poller>
int wait_for(poller look)
{
    for (;;) {
        const int count = look();
        if (count != 0) {
            return count;
        }
        if (peer->in.rarely(64)) {
            errno = EINTR;
            return peer->in.ConsumeBool() ? -1 : 0; // a signal, or the time has passed
        }
        peer->turn();
    }
}

} // namespace

int test::handle_call(const char *path, xmlNode *input, xmlNode **output)
{
    fuzz::input &in = peer->in;
    ++depth;
    while (depth < 4 && in.rarely(3)) {
        act(in);
    }
    --depth;
    if (output != nullptr) {
        *output = in.PickValueInArray<xmlNode *>(
            {nullptr, input, input == nullptr ? nullptr : input->children});
        *output = *output == nullptr && in.ConsumeBool() ? element(in) : *output;
    }
    const bool is_long = path != nullptr && std::strlen(path) > 10000; // it must still be there
    return is_long ? -1 : static_cast<int>(in.below(3)) - 1;
}

extern "C" {
int __real_epoll_wait(int epoll, epoll_event *events, int most, int limit);
int __real_poll(pollfd *states, nfds_t count, int limit);

int __wrap_epoll_wait(int epoll, epoll_event *events, int most, int /*limit*/)
{
    return wait_for([&] { return __real_epoll_wait(epoll, events, most, 0); });
}

int __wrap_poll(pollfd *states, nfds_t count, int /*limit*/)
{
    return wait_for([&] { return __real_poll(states, count, 0); });
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const int listener = conf_plugin_service_enable(); // at the default path
    fuzz::input in(data, size);
    hostile_daemon daemon{in, listener};
    peer = &daemon;
    econf_plugin_config_debug(DBG_ALL, in.rarely(8) ? 1 : 0);
    start();
    daemon.is_sound = false;
    while (!in.ended() && get_plugin_context() != nullptr) {
        if (!daemon.connection) {
            econf_plugin_close();
            start();
        } else if (is_sound_at_first) {
            daemon.turn();
            econf_plugin_run();
        } else {
            act(in);
        }
    }
    econf_plugin_close();
    del_plugin_from_hash();
    econf_plugin_config_debug(0, 0);
    while (daemon.accept()) {
    }
    return 0;
}
