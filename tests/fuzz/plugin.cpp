// A whole plugin under a hostile daemon. In the target "loop" the daemon registers and activates it
// soundly and then sends what it likes; in "exchange" each of the plugin's own requests is met by
// any answer.
//
// The daemon has no thread: the library's waits are replaced at link time, and give it its turns.
#include "conf_plugin/plugin_internal.h"
#include "fuzz.h"

#include <array>
#include <cerrno>
#include <map>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

#ifdef FUZZ_EXCHANGE
constexpr bool is_sound_at_first = false;
#else
constexpr bool is_sound_at_first = true;
#endif

using fuzz::reply;
using fuzz::rpc;

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
    int connection = -1;
    unsigned long last_id = first_id;
    std::string asked = {}; // the id that the plugin waits for
    std::string received = {};
    std::map<unsigned long, int> replies = {};

    void turn()
    {
        if (connection < 0) {
            connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            return;
        }
        read();
        if (is_sound && !asked.empty()) {
            send(in.message({answers[0]}, asked)); // damaged now and then
        } else if (in.ended() || in.rarely(64)) {
            close(std::exchange(connection, -1));
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
        (void)::send(connection, bytes.data(), size, MSG_NOSIGNAL);
    }
    void read()
    {
        static std::array<char, 300000> bytes;
        const ssize_t count = recv(connection, bytes.data(), bytes.size(), 0);
        received.append(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        msg_head_t head{};
        while (received.size() >= sizeof head) {
            received.copy(reinterpret_cast<char *>(&head), sizeof head);
            fuzz::require(head.magic == MSG_MAGIC && head.format == 0, "no frame", received);
            if (received.size() - sizeof head < head.length) {
                break;
            }
            take(received.substr(sizeof head, head.length));
            received.erase(0, sizeof head + head.length);
        }
        received.resize(count == 0 ? 0 : received.size());
    }
    void take(const std::string &body)
    {
        const std::size_t at = body.rfind("<id>");
        fuzz::require(at != std::string::npos, "a message without id", body);
        const std::string id = body.substr(at + 4, body.find('<', at + 4) - at - 4);
        if (body.starts_with("<rpc>") && body.ends_with("</rpc>")) {
            asked = id;
            return;
        }
        fuzz::require(body.starts_with("<reply>") && body.ends_with("</reply>"), "no reply", body);
        const unsigned long number = std::strtoul(id.c_str(), nullptr, 10);
        fuzz::require(number < first_id || number > last_id || ++replies[number] == 1,
                      "a second reply", body);
    }
};

hostile_daemon *peer;
int depth = 0; // of callbacks

void start();

struct call {
    fuzz::input &in;
    const char *path;
    xmlNode *data;
    xmlNode *list;
};

// What a plugin can do, inside of callbacks and outside. The first ones are exchanges.
constexpr std::size_t exchanges = 8;
int (*const calls[])(call &) = {
    [](call &c) { return econf_plugin_pull(0, c.path, &c.list); },
    [](call &c) { return econf_plugin_pull(1, c.path, &c.list); },
    [](call &c) { return econf_plugin_locate(0, c.path, &c.list); },
    [](call &c) { return econf_plugin_locate(1, c.path, &c.list); },
    [](call &c) { return econf_plugin_push(c.path, c.data); },
    [](call &c) { return econf_plugin_config_deployment(c.path, 1, c.data); },
    [](call &) { return econf_plugin_save_deployment(); },
    [](call &) { return econf_plugin_copy_running_to_deployment(1); },
    [](call &c) { return econf_plugin_activate(static_cast<int>(c.in.below(3))); },
    [](call &) { return econf_plugin_deactivate(), 0; },
    [](call &c) { return econf_plugin_error(static_cast<int>(c.in.below(3)), "%s%n"), 0; },
    [](call &) { return econf_plugin_error(7, nullptr), 0; },
    [](call &) { return econf_plugin_run(), 0; },
    [](call &) { return econf_plugin_close(), start(), 0; },
    [](call &) { return econf_plugin_close(), 0; },
};

xmlNode *element(fuzz::input &in)
{
    xmlNode *made = xmlNewNode(nullptr, reinterpret_cast<const xmlChar *>("data"));
    xmlNewTextChild(made, nullptr, reinterpret_cast<const xmlChar *>("x"),
                    reinterpret_cast<const xmlChar *>(in.PickValueInArray({"", "a&b", "<c/>"})));
    return made;
}

void act(fuzz::input &in)
{
    const std::string path = in.path();
    call all = {in, path.c_str(), element(in), nullptr};
    const std::size_t which = in.below(std::size(calls));
    const int result = calls[which](all);
    fuzz::require(result == 0 || (result == -1 && all.list == nullptr), "result");
    xmlFreeNode(all.data);
    xmlFreeNodeList(all.list);
    const conf_plugin_context_t *context = get_plugin_context();
    fuzz::require(depth > 0 || which >= exchanges || context == nullptr ||
                      context->recv_buf->used + context->send_buf->used == 0,
                  "an exchange leaves bytes behind, which nothing would wake the plugin for");
}

int called(const char *text, xmlNode *input = nullptr, xmlNode **output = nullptr)
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
    const bool is_long = text != nullptr && std::strlen(text) > 10000; // it must still be there
    return is_long ? -1 : static_cast<int>(in.below(3)) - 1;
}

// Registers and activates, by one interface or the other.
void start()
{
    static char name[] = "fuzz";
    static econf_config_cb_info_t configs[] = {
        {"/a:b", 1, [](int, int, int, int, const char *at) { return called(at); }}, {}};
    static econf_status_cb_info_t states[] = {
        {"/a:c",
         [](int, const char *at, const char *, xmlNode **out) { return called(at, nullptr, out); }},
        {}};
    static econf_operate_cb_info_t operations[] = {
        {name, [](int, xmlNode *in, xmlNode **out) { return called(nullptr, in, out); }}, {}};
    static econf_plugin_subpub_info_t callbacks = {configs, states, operations,
                                                   [] { (void)called(nullptr); }};
    static config_callback_t old_configs[] = {
        {name, 1, [](int, int, int, char *at) { return called(at); }}, {}};
    static status_callback_t old_states[] = {
        {name, [](char *at, char *, xmlNode **out) { return called(at, nullptr, out); }}, {}};
    static rpc_callback_t old_operations[] = {
        {name, [](xmlNode *in, xmlNode **out) { return called(nullptr, in, out); }}, {}};
    static conf_plugin_info_t old_callbacks = {old_configs, old_states, old_operations,
                                               callbacks.kick_off, nullptr};
    if (peer->in.rarely(4)) {
        (void)conf_plugin_init(name, &old_callbacks);
    } else {
        (void)econf_plugin_init(name, &callbacks);
    }
    (void)econf_plugin_activate(static_cast<int>(peer->in.below(3)));
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
        if (daemon.connection < 0) {
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
    do {
        close(daemon.connection);
        daemon.connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    } while (daemon.connection >= 0);
    return 0;
}
