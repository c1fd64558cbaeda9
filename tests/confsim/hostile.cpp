// Peers that confsim has to survive, one after the other. Notifies whether confsim did with each of
// them what is expected: dropped it, or kept it and still answers it.
#include "conf_plugin.h"

#include <cstdio>
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

std::string call(const std::string &method, const std::string &params)
{
    return frame("<rpc><method>" + method + "</method><params>" + params +
                 "</params><id>5</id></rpc>");
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

    // Whether everything is written, and the daemon has not closed before.
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
            const ssize_t count =
                poll(&readable, 1, 5000) <= 0 ? 0 : recv(socket_, bytes.data(), bytes.size(), 0);
            if (count <= 0) {
                return false;
            }
            all.append(bytes.data(), static_cast<std::size_t>(count));
        }
        return true;
    }

    // Whether the daemon closes, whatever it sent before.
    bool is_dropped() const
    {
        pollfd closed = {socket_, POLLRDHUP, 0};
        return poll(&closed, 1, 10000) == 1;
    }

private:
    int socket_;
};

const std::string pull = call("pull", "<path>/test:system</path>");
const char *const answer = "<id>5</id>";

const struct attack {
    const char *name;
    std::string bytes;
    int times;         // that the bytes are sent at most
    const char *heard; // null when the daemon is to close
} attacks[] = {
    {"junk between messages is skipped", std::string(5000, 'x') + pull, 1, answer},
    {"a header that announces too much is skipped", head(0xfffffff0U) + pull, 1, answer},
    {"many such headers are skipped", repeated(head(0x7fffffffU), 50000) + pull, 1, answer},
    {"a few messages that are not XML are forgiven",
     repeated(frame("<a"), 5) + frame("") + frame("<a>&b;</a>") + pull, 1, answer},
    {"messages that make no sense are ignored or refused",
     frame("<rpc/>") + frame("<reply/>") + frame("<reply><id>1</id></reply>") +
         frame("<rpc><method>x</method><params/></rpc>") + pull,
     1, answer},
    {"an unregistered plugin is refused", call("activate", ""), 1, "not registered"},
    {"a name that is taken is refused", call("register", "<plugin-name>good</plugin-name>"), 1,
     "already"},
    {"a subscription without a path is refused",
     call("register", "<plugin-name>x</plugin-name><config-subscribe><subscriber/>"
                      "</config-subscribe>"),
     1, "<error>"},
    {"endless junk is dropped", std::string(3 << 20, '\xff'), 1, nullptr},
    {"endless messages that are not XML are dropped", frame("<a"), 1000, nullptr},
    {"who asks and never reads is dropped", pull, 1000000, nullptr},
    {"half a message and the end", head(1000) + "<rpc>", 1, ""},
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
        bool sent = true;
        for (int i = 0; sent && i < each.times; ++i) {
            sent = attacker.send(each.bytes);
        }
        const bool as_expected =
            each.heard != nullptr ? sent && attacker.hears(each.heard) : attacker.is_dropped();
        if (!as_expected) {
            std::printf("hostile: not so: %s\n", each.name);
            ++failures;
        }
    }
    char name[] = "hostile";
    char good[] = "all as expected";
    char bad[] = "failed";
    return conf_notify(name, failures == 0 ? good : bad) == 0 ? 0 : 1;
}
