// Peers that confsim has to survive, one after the other. Notifies whether confsim did with each of
// them what is expected: dropped it, or kept it and still answers it.
#include "conf_plugin.h"

#include <cstdio>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

std::string head(std::size_t length)
{
    const msg_head_t fields = {MSG_MAGIC, static_cast<u32_t>(length), 0, 0};
    return {reinterpret_cast<const char *>(&fields), sizeof fields};
}

std::string frame(const std::string &body)
{
    return head(body.size()) + body;
}

std::string pull(int id)
{
    return frame("<rpc><method>pull</method><params><path>/test:system</path></params><id>" +
                 std::to_string(id) + "</id></rpc>");
}

std::string repeated(const std::string &text, int times)
{
    std::string all;
    for (int i = 0; i < times; ++i) {
        all += text;
    }
    return all;
}

class peer {
public:
    peer() : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::string(g_conf_plugin_socket).copy(address.sun_path, sizeof address.sun_path - 1);
        if (connect(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
            std::perror("connect");
        }
    }
    ~peer() { close(socket_); }
    peer(const peer &) = delete;
    peer &operator=(const peer &) = delete;

    // Sends until everything is written or the daemon has closed.
    bool send(const std::string &bytes) const
    {
        std::size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t count =
                ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) {
                return false;
            }
            sent += static_cast<std::size_t>(count);
        }
        return true;
    }

    // Whether some answer comes that holds the text.
    bool hears(const std::string &text) const
    {
        std::string all;
        std::vector<char> bytes(65536);
        while (all.find(text) == std::string::npos) {
            pollfd readable = {socket_, POLLIN, 0};
            if (poll(&readable, 1, 5000) <= 0) {
                return false;
            }
            const ssize_t count = recv(socket_, bytes.data(), bytes.size(), 0);
            if (count <= 0) {
                return false;
            }
            all.append(bytes.data(), static_cast<std::size_t>(count));
        }
        return true;
    }

    bool still_answers() const { return send(pull(77)) && hears("<id>77</id>"); }

    // Whether the daemon closes, whatever it sent before.
    bool is_dropped() const
    {
        pollfd closed = {socket_, POLLRDHUP, 0};
        return poll(&closed, 1, 10000) == 1;
    }

private:
    int socket_;
};

struct attack {
    const char *name;
    std::function<bool(const peer &)> outcome;
};

const attack attacks[] = {
    {"junk between messages is skipped",
     [](const peer &me) { return me.send(std::string(5000, 'x')) && me.still_answers(); }},
    {"a header that announces too much is skipped",
     [](const peer &me) { return me.send(head(0xfffffff0U)) && me.still_answers(); }},
    {"many such headers are skipped",
     [](const peer &me) {
         return me.send(repeated(head(0x7fffffffU), 50000)) && me.still_answers();
     }},
    {"a few messages that are not XML are forgiven",
     [](const peer &me) {
         return me.send(repeated(frame("<a"), 5) + frame("") + frame("<a>&b;</a>")) &&
                me.still_answers();
     }},
    {"messages that make no sense are ignored or refused",
     [](const peer &me) {
         return me.send(frame("<rpc/>") + frame("<reply/>") + frame("<reply><id>1</id></reply>") +
                        frame("<rpc><method>x</method><params/></rpc>")) &&
                me.still_answers();
     }},
    {"an unregistered plugin is refused",
     [](const peer &me) {
         return me.send(frame("<rpc><method>activate</method><params/><id>5</id></rpc>")) &&
                me.hears("not registered");
     }},
    {"a name that is taken is refused",
     [](const peer &me) {
         return me.send(frame("<rpc><method>register</method><params><plugin-name>good"
                              "</plugin-name></params><id>5</id></rpc>")) &&
                me.hears("already");
     }},
    {"a subscription without a path is refused",
     [](const peer &me) {
         return me.send(frame("<rpc><method>register</method><params><plugin-name>x</plugin-name>"
                              "<config-subscribe><subscriber/></config-subscribe></params>"
                              "<id>5</id></rpc>")) &&
                me.hears("<error>");
     }},
    {"endless junk is dropped",
     [](const peer &me) {
         (void)me.send(std::string(3 << 20, '\xff'));
         return me.is_dropped();
     }},
    {"endless messages that are not XML are dropped",
     [](const peer &me) {
         (void)me.send(repeated(frame("<a"), 1000));
         return me.is_dropped();
     }},
    {"who asks and never reads is dropped",
     [](const peer &me) {
         for (int i = 1; me.send(pull(i)); ++i) {
         }
         return me.is_dropped();
     }},
    {"half a message and the end", [](const peer &me) { return me.send(head(1000) + "<rpc>"); }},
};

} // namespace

int main()
{
    if (conf_load_config(nullptr) != 0) {
        std::fprintf(stderr, "hostile: no daemon\n");
        return 1;
    }
    const peer half_way;
    (void)half_way.send(head(1000) + "<rpc>"); // stays like that to the end
    int failures = 0;
    for (const attack &each : attacks) {
        const peer attacker;
        if (!each.outcome(attacker)) {
            std::printf("hostile: not so: %s\n", each.name);
            ++failures;
        }
    }
    char name[] = "hostile";
    char good[] = "all as expected";
    char bad[] = "failed";
    return conf_notify(name, failures == 0 ? good : bad) == 0 ? 0 : 1;
}
