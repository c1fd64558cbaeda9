// A plugin for the tests of faults and findings, right or wrong in one way.
//
//     confsim_odd WAY
//
// Each takes changes of /test:system/user and the operation "echo", pulls /test:system by itself,
// twenty times a second, and notifies as often. The way "right" is supervised, and has a thread for
// notifying. The way "timer" pulls from a timer by the plain calls. The others speak to the daemon
// by themselves, as long as all goes well: they take what one read gives for a whole body, wait a
// second for an answer, and end when anything else comes.
#include "conf_api.h"
#include "conf_def.h"
#include "conf_plugin.h"
#include "conf_supervisor.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int between_pulls = 50;
constexpr int tick = 20; // of the timer
constexpr int patience = 1000;

char name[] = "odd";
char notification[] = "<tick/>";

long long now()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000LL + time.tv_nsec / 1000000;
}

// --- The supervised one.

int pull(const char *path)
{
    xmlNode *list = nullptr;
    const int result = econf_plugin_pull(0, path, &list);
    xmlFreeNodeList(list);
    return result;
}

int on_config(int, int, int, int, const char *path)
{
    return pull(path);
}

int on_echo(int, xmlNode *input, xmlNode **output)
{
    *output = xmlCopyNodeList(input);
    return 0;
}

int run_supervised()
{
    econf_config_cb_info_t configs[] = {{"/test:system/user", 1, on_config}, {nullptr, 0, nullptr}};
    char echo[] = "echo";
    econf_operate_cb_info_t operations[] = {{echo, on_echo}, {nullptr, nullptr}};
    econf_plugin_subpub_info_t info = {configs, nullptr, operations, nullptr};
    econf_supervisor_options_t options{};
    options.join_limit = options.answer_limit = patience;
    options.retry_first = options.retry_most = between_pulls;
    std::thread([] {
        while (conf_notify(name, notification) != 1) {
            usleep(1000 * between_pulls);
        }
    }).detach();
    econf_supervisor_t *supervisor = econf_supervisor_create(name, &info, &options);
    pollfd daemon = {econf_supervisor_fd(supervisor), POLLIN, 0};
    while (poll(&daemon, 1, between_pulls) >= 0) {
        if (daemon.revents != 0 && econf_supervisor_process(supervisor) != 1) {
            break;
        }
        if (*econf_supervisor_reason(supervisor) == '\0') {
            (void)pull("/test:system");
        }
    }
    econf_supervisor_destroy(supervisor);
    return 0;
}

// --- The one with a timer.

int run_with_timer()
{
    econf_config_cb_info_t configs[] = {{"/test:system/user", 1, on_config}, {nullptr, 0, nullptr}};
    char echo[] = "echo";
    econf_operate_cb_info_t operations[] = {{echo, on_echo}, {nullptr, nullptr}};
    econf_plugin_subpub_info_t info = {configs, nullptr, operations, nullptr};
    pollfd daemon = {econf_plugin_init(name, &info), POLLIN, 0};
    if (daemon.fd < 0 || econf_plugin_activate(ACTIVATE_WITH_NONE) != 0) {
        return 1;
    }
    while ((daemon.revents & POLLHUP) == 0) {
        if (poll(&daemon, 1, tick) > 0) {
            econf_plugin_run();
        } else {
            (void)pull("/test:system");
        }
    }
    econf_plugin_close();
    return 0;
}

// --- The others.

[[noreturn]] void give_up(const char *why)
{
    std::fprintf(stderr, "odd: %s\n", why);
    _exit(4);
}

std::string between(const std::string &text, const std::string &begin, const std::string &end)
{
    const std::size_t from = text.find(begin);
    const std::size_t to = text.find(end, from);
    return to == std::string::npos ? ""
                                   : text.substr(from + begin.size(), to - from - begin.size());
}

class naive {
public:
    explicit naive(std::string way) : way_(std::move(way)) {}

    [[noreturn]] void run()
    {
        join();
        for (long long next = now();;) {
            pollfd daemon = {socket_, POLLIN, 0};
            if (poll(&daemon, 1, between_pulls) > 0) {
                serve(receive());
            }
            if (now() >= next) {
                (void)ask("pull", "<path>/test:system</path>");
                (void)conf_notify(name, notification);
                next = now() + between_pulls;
            }
        }
    }

private:
    void join()
    {
        if (conf_load_config(nullptr) != 0) {
            give_up("no profile");
        }
        close(socket_);
        socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{AF_UNIX, {}};
        std::string(g_conf_plugin_socket).copy(address.sun_path, sizeof address.sun_path - 1);
        while (connect(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
            usleep(20000);
        }
        (void)ask("register",
                  "<plugin-name>odd</plugin-name><config-subscribe><subscriber>"
                  "<path>/test:system/user</path><priority>1</priority><callback>1</callback>"
                  "</subscriber></config-subscribe><operate-subscribe><subscriber><path>echo</path>"
                  "<callback>2</callback></subscriber></operate-subscribe>");
        (void)ask("activate", "");
    }

    void send(const std::string &body)
    {
        const msg_head_t head = {MSG_MAGIC, static_cast<u32_t>(body.size()), 0, 0};
        std::string frame(reinterpret_cast<const char *>(&head), sizeof head);
        frame += body;
        (void)::send(socket_, frame.data(), frame.size(), MSG_NOSIGNAL);
    }

    std::string receive()
    {
        msg_head_t head{};
        const ssize_t count = recv(socket_, &head, sizeof head, 0);
        if (count <= 0 && way_ == "rejoins") {
            join();
            return "";
        }
        if (count != sizeof head || head.magic != MSG_MAGIC || head.length > 65536) {
            give_up("no frame");
        }
        std::string body(head.length, '\0');
        if (recv(socket_, body.data(), body.size(), 0) != static_cast<ssize_t>(body.size())) {
            give_up("no whole frame");
        }
        return body;
    }

    std::string ask(const std::string &method, const std::string &params)
    {
        const std::string id = "<id>" + std::to_string(++last_id_) + "</id>";
        send("<rpc><method>" + method + "</method><params>" + params + "</params>" + id + "</rpc>");
        for (;;) {
            pollfd daemon = {socket_, POLLIN, 0};
            if (poll(&daemon, 1, patience) <= 0) {
                give_up("no answer");
            }
            std::string message = receive();
            if (message.empty()) {
                return "";
            }
            if (message.starts_with("<reply>")) {
                if (message.find(id) == std::string::npos ||
                    message.starts_with("<reply><error>")) {
                    give_up("not the answer");
                }
                return message;
            }
            serve(message);
        }
    }

    void serve(const std::string &request)
    {
        if (request.empty()) {
            return;
        }
        if (request.find("</rpc>") == std::string::npos ||
            request.find('\0') != std::string::npos) {
            give_up("no request");
        }
        if (request.find("<type>config</type>") != std::string::npos) {
            (void)ask("pull", "<path>" + between(request, "<path>", "</path>") + "</path>");
        }
        answer(request, "<id>" + between(request, "<id>", "</id>") + "</id>");
    }

    void answer(const std::string & /*request*/, const std::string &id)
    {
        send("<reply><result/>" + id + "</reply>");
    }

    std::string way_;
    int socket_ = -1;
    int last_id_ = 0;
};

} // namespace

int main(int count, char **arguments)
{
    const std::string way = count > 1 ? arguments[1] : "right";
    if (way == "right") {
        return run_supervised();
    }
    if (way == "timer") {
        return run_with_timer();
    }
    naive(way).run();
}
