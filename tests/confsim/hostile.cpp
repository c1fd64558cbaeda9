// Peers that confsim has to survive, one after the other. Notifies whether confsim did with each of
// them what is expected: dropped it, or kept it and still answers it.
#include "fake_daemon.h"

#include <cstdio>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace test;

// Returns -1 when nobody accepts for long.
int connect_to(const char *path)
{
    const int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval for_connecting = {5, 0}, for_ever{};
    setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &for_connecting, sizeof for_connecting);
    sockaddr_un address{AF_UNIX, {}};
    std::string(path).copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(sock, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        std::perror("connect");
        close(sock);
        return -1;
    }
    setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &for_ever, sizeof for_ever);
    return sock;
}

int connect_to_daemon()
{
    return connect_to(g_conf_plugin_socket);
}

// Whether some answer comes that holds the text, and the connection lasts until then.
bool hears(Peer &daemon, const std::string &text)
{
    std::string body;
    do {
        body = daemon.receive();
    } while (!body.empty() && body.find(text) == std::string::npos);
    return !body.empty();
}

// Whether the daemon closes, whatever it sent before.
bool is_dropped(const Peer &daemon)
{
    pollfd closed = {daemon.fd(), POLLRDHUP, 0};
    return closed.fd < 0 || poll(&closed, 1, 10000) == 1;
}

std::string call(const std::string &method, const std::string &params)
{
    return framed(rpc(method, "<params>" + params + "</params>", "5"));
}

const std::string pull = call("pull", "<path>/test:system</path>");
// A plugin that wants to be told of log and user of running.xml.
std::string registration(const std::string &name)
{
    const std::string paths[] = {"/test:system/log", "/test:system/user"};
    std::string params = "<plugin-name>" + name + "</plugin-name><config-subscribe>";
    for (const std::string &each : paths) {
        params += "<subscriber><path>" + each +
                  "</path><priority>1</priority><callback>1</callback></subscriber>";
    }
    return call("register", params + "</config-subscribe>");
}

const std::string half = head(1000) + "<rpc>";
const char *const served = "<id>5</id>"; // what comes for a sound request afterwards

const struct attack {
    const char *name;
    std::string bytes;
    const char *heard; // null when the daemon is to close
    int times = 1;     // that the bytes are sent at most
} attacks[] = {
    {"junk is skipped", std::string(5000, 'x'), served},
    {"a header that announces too much is skipped", head(0xfffffff0U), served},
    {"many such headers are skipped", head(0x7fffffffU), served, 50000},
    {"a few messages that are not XML are forgiven", framed("<a") + framed("<a>&b;</a>"), served,
     3},
    {"an empty message is forgiven", framed(""), served},
    {"messages that make no sense are ignored or refused",
     framed("<rpc/>") + framed("<reply/>") + framed("<reply><id>1</id></reply>") +
         framed("<rpc><method>x</method><params/></rpc>"),
     served},
    {"an unregistered plugin is refused", call("activate", ""), "not registered"},
    {"a name that is taken is refused", call("register", "<plugin-name>good</plugin-name>"),
     "already"},
    {"a subscription without a path is refused",
     call("register", "<plugin-name>x</plugin-name><config-subscribe><subscriber/>"
                      "</config-subscribe>"),
     "<error>"},
    {"a way of staging that there is not is refused",
     registration("odd") + call("config_deployment", "<path>/test:system</path><oper-type>change"
                                                     "</oper-type><data><system/></data>"),
     "There is no oper-type \"change\"."},
    {"who answers nothing may deactivate itself",
     registration("mute") + call("activate", "<with-cfgr/>") + call("deactivate", ""), served},
    {"endless junk is dropped", std::string(3 << 20, '\xff'), nullptr},
    {"endless messages that are not XML are dropped", framed("<a"), nullptr, 1000},
    {"who asks and never reads is dropped", pull, nullptr, 1000000},
};

// An agent hears of a notification that is no UTF-8 in a message that is XML.
bool is_agent_served()
{
    Peer agent(connect_to(g_conf_agent_socket));
    agent.send(framed("<rpc>"));
    const bool told = hears(agent, "<error-tag>malformed-message</error-tag>");
    agent.send(framed("<rpc/>"));
    const bool refused = hears(agent, ">A request without an operation is not served.<");
    agent.send(framed("<rpc><create-subscription/></rpc>"));
    const bool subscribed = hears(agent, "<ok/>");
    // A byte, a control character, an overlong sequence, one without its beginning, and a good one.
    char name[] = "bytes", bytes[] = "a\xff\x01\xc1\x81\x8d\x8d\xc3\xa9z";
    return told && refused && subscribed && conf_notify(name, bytes) == 0 &&
           hears(agent, "<text>a\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\u00e9z</text>");
}

// More plugins than are accepted: turned away when there are too many, or else, when the daemon has
// no descriptor left for them, kept waiting for a while.
bool is_crowd_survived(std::size_t size)
{
    std::vector<Peer> crowd;
    do {
        crowd.emplace_back(connect_to_daemon());
    } while (crowd.back().fd() >= 0 && crowd.size() < size);
    if (crowd.back().fd() >= 0) {
        return is_dropped(crowd.back());
    }
    sleep(2);
    std::printf("hostile: %zu connected\n", crowd.size() - 1);
    return crowd.size() > 1;
}

} // namespace

// With an argument, only the crowd comes.
int main(int count, char ** /*arguments*/)
{
    if (conf_load_config(nullptr) != 0) {
        std::fprintf(stderr, "hostile: no daemon\n");
        return 1;
    }
    char name[] = "hostile", good[] = "all as expected", bad[] = "failed";
    if (count > 1) {
        return conf_notify(name, is_crowd_survived(1000) ? good : bad) == 0 ? 0 : 1;
    }
    Peer half_way(connect_to_daemon());
    half_way.send(half);                  // stays like that to the end
    Peer(connect_to_daemon()).send(half); // and this one goes
    bool as_expected = is_agent_served();
    for (const attack &each : attacks) {
        Peer daemon(connect_to_daemon());
        for (int i = 0; daemon.fd() >= 0 && i < each.times; ++i) {
            daemon.send(each.bytes);
        }
        if (each.heard == served) {
            daemon.send(pull);
        }
        if (each.heard == nullptr ? !is_dropped(daemon) : !hears(daemon, each.heard)) {
            std::printf("hostile: not so: %s\n", each.name);
            as_expected = false;
        }
    }
    as_expected = is_crowd_survived(260) && as_expected;
    return conf_notify(name, as_expected ? good : bad) == 0 ? 0 : 1;
}
