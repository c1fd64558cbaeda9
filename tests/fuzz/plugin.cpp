// A whole plugin under a hostile daemon. In the target "loop" the daemon registers and activates it
// soundly and then sends what it likes; in "exchange" each of the plugin's own requests is met by
// any answer; in "supervised" a supervisor joins it, again and again, and both happens.
//
// The daemon has no thread: the library's waits are replaced at link time, and give it its turns.
// Directories are not watched, since the kernel takes milliseconds to end that.
#include "both_interfaces.h"
#include "conf_plugin/plugin_internal.h"
#include "conf_supervisor.h"
#include "fuzz.h"

#include <array>
#include <cerrno>
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

#ifdef FUZZ_SUPERVISED
constexpr bool is_supervised = true;
#else
constexpr bool is_supervised = false;
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
    support::unique_fd connection = {};
    std::string received = {};
    std::string asked = {};             // the id that the plugin waits for
    std::vector<bool> is_answered = {}; // each request, from first_id on
    std::size_t answered = 0;           // up to there requests are, or never will be

    [[nodiscard]] bool accept()
    {
        connection.reset(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        received.clear();
        asked.clear();
        return static_cast<bool>(connection);
    }
    void turn()
    {
        if (!connection) {
            (void)accept();
            return;
        }
        receive();
        if (is_sound && !asked.empty()) {
            send(in.message(std::span(answers).first(1), asked)); // damaged now and then
        } else if (in.ended() || in.rarely(64)) {
            connection.reset();
        } else if (!asked.empty() && !in.rarely(4)) {
            send(in.message(answers, asked));
        } else {
            is_answered.push_back(false);
            send(in.message(requests, std::to_string(first_id + is_answered.size() - 1)));
        }
    }
    void send(const std::string &bytes)
    {
        asked.clear();
        const std::size_t size = std::min<std::size_t>(bytes.size(), 100000);
        (void)::send(connection.get(), bytes.data(), size, MSG_NOSIGNAL);
    }
    void receive()
    {
        static std::array<char, 65536> bytes;
        ssize_t count = 0;
        do {
            count = recv(connection.get(), bytes.data(), bytes.size(), 0);
            received.append(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        } while (count == static_cast<ssize_t>(bytes.size()));
        std::string_view left = received;
        for (msg_head_t head{}; left.size() >= sizeof head;) {
            std::memcpy(&head, left.data(), sizeof head);
            MUST(head.magic == MSG_MAGIC && head.format == 0, received);
            if (left.size() - sizeof head < head.length) {
                break;
            }
            take(left.substr(sizeof head, head.length));
            left.remove_prefix(sizeof head + head.length);
        }
        received.erase(0, received.size() - left.size());
    }
    void take(std::string_view body)
    {
        const std::size_t at = body.rfind("<id>");
        MUST(at != std::string::npos, std::string(body));
        const std::string id(body.substr(at + 4, body.find('<', at + 4) - at - 4));
        if (body.starts_with("<rpc>") && body.ends_with("</rpc>")) {
            asked = id;
            return;
        }
        MUST(body.starts_with("<reply>") && body.ends_with("</reply>"), std::string(body));
        const unsigned long number = std::strtoul(id.c_str(), nullptr, 10) - first_id;
        if (number < is_answered.size()) {
            MUST(!is_answered[number], std::string(body));
            MUST(!is_supervised || number >= answered, std::string(body));
            is_answered[number] = true;
            answered = number + 1;
        }
    }
};

hostile_daemon *peer;
econf_supervisor_t *supervisor; // null for a plain plugin
int depth = 0;                  // of callbacks

void act(fuzz::input &in);

void create_supervisor()
{
    const econf_supervisor_options_t options = {
        static_cast<int>(peer->in.below(3)),
        0,
        0,
        1,
        1,
        [](void *) { act(peer->in); },
        [](void *, const char *why) { MUST(why != nullptr); },
        nullptr};
    supervisor = econf_supervisor_create("demo", test::callbacks(), &options);
    MUST(supervisor != nullptr);
}

int supervise(fuzz::input &in, std::size_t which)
{
    switch (which) {
    case 0:
        return econf_supervisor_post(
            supervisor, [](void *) { act(peer->in); }, nullptr);
    case 1:
        MUST(depth == 0 || supervisor == nullptr || econf_supervisor_process(supervisor) == 1);
        return 0;
    default:
        if (in.rarely(4)) {
            econf_supervisor_stop(supervisor);
        } else if (in.rarely(4)) {
            econf_supervisor_destroy(std::exchange(supervisor, nullptr));
        }
        return 0;
    }
}

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

const char *element(fuzz::input &in)
{
    return in.PickValueInArray(
        {"<data><x/></data>", "<data><x>a&amp;b</x></data>", "<data><x>&lt;c/&gt;</x></data>"});
}

constexpr std::size_t exchanges = 8; // of what a plugin can do, at the beginning

int call(fuzz::input &in, std::size_t which, const char *path, const char *text, xmlNode **list)
{
    switch (which) {
    case 0:
    case 1:
        return econf_plugin_pull(static_cast<int>(which), path, list);
    case 2:
    case 3:
        return econf_plugin_locate(static_cast<int>(which) - 2, path, list);
    case 4:
        return econf_plugin_push(path, node_ptr(test::parse(text)).get());
    case 5:
        return econf_plugin_config_deployment(path, 1, node_ptr(test::parse(text)).get());
    case 6:
        return econf_plugin_save_deployment();
    case 7:
        return econf_plugin_copy_running_to_deployment(1);
    case exchanges:
        return econf_plugin_activate(static_cast<int>(in.below(3)));
    case 9:
        econf_plugin_deactivate();
        return 0;
    case 10:
        econf_plugin_error(static_cast<int>(in.below(3)), "%s%n");
        return 0;
    case 11:
        econf_plugin_error(7, nullptr);
        return 0;
    case 12:
        econf_plugin_run();
        return 0;
    case 13:
        econf_plugin_close();
        start();
        return 0;
    default:
        econf_plugin_close();
        return 0;
    }
}

// What a plugin can do, inside of callbacks and outside.
void act(fuzz::input &in)
{
    const std::string path = in.path();
    const char *text = element(in);
    xmlNode *list = nullptr;
    const std::size_t which = in.below(15);
    const bool is_for_supervisor = is_supervised && which >= 12 && which < 15;
    const int result =
        is_for_supervisor ? supervise(in, which - 12) : call(in, which, path.c_str(), text, &list);
    MUST(result == 0 || (result == -1 && list == nullptr));
    xmlFreeNodeList(list);
    // Bytes left behind by an exchange would wake nobody.
    const conf_plugin_context_t *context = get_plugin_context();
    MUST(is_supervised || depth > 0 || which >= exchanges || context == nullptr ||
         context->recv_buf->used + context->send_buf->used == 0);
}

template <typename poller>
int wait_for(int limit, poller look)
{
    for (;;) {
        const int count = look();
        if (count != 0 || limit == 0) {
            return count;
        }
        if (peer->in.rarely(64)) {
            errno = EINTR;
            return peer->in.ConsumeBool() ? -1 : 0; // a signal, or the time has passed
        }
        peer->turn();
    }
}

// Until the input has ended or the supervisor has.
void serve()
{
    create_supervisor();
    for (int result = 1; result == 1 && !peer->in.ended();) {
        result = econf_supervisor_process(supervisor);
        if (peer->connection) {
            peer->is_sound = false;
            peer->turn();
        }
    }
    econf_supervisor_destroy(std::exchange(supervisor, nullptr));
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
        *output = *output == nullptr && in.ConsumeBool() ? test::parse(element(in)) : *output;
    }
    const bool is_long = path != nullptr && std::strlen(path) > 10000; // it must still be there
    return is_long ? -1 : static_cast<int>(in.below(3)) - 1;
}

extern "C" {
int __real_epoll_wait(int epoll, epoll_event *events, int most, int limit);
int __real_poll(pollfd *states, nfds_t count, int limit);

int __wrap_epoll_wait(int epoll, epoll_event *events, int most, int limit)
{
    return wait_for(limit, [&] { return __real_epoll_wait(epoll, events, most, 0); });
}

int __wrap_poll(pollfd *states, nfds_t count, int limit)
{
    return wait_for(limit, [&] { return __real_poll(states, count, 0); });
}

int __wrap_inotify_add_watch(int /*watch*/, const char * /*path*/, u32_t /*events*/)
{
    errno = ENOSPC;
    return -1;
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const int listener = conf_plugin_service_enable(); // at the default path
    fuzz::input in(data, size);
    hostile_daemon daemon{in, listener};
    peer = &daemon;
    econf_plugin_config_debug(DBG_ALL, in.writes(8) ? 1 : 0);
    if (is_supervised) {
        serve();
    } else {
        start();
    }
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
