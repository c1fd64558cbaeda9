// An agent: connects to the daemon, sends the three requests that the library builds, and prints
// the replies and then the notifications as they come.
//
//     agent [COUNT]
//
// Ends with status 0 after COUNT notifications (default: none), with 1 when the daemon hangs up or
// says nothing for 10 seconds.
#include "conf_plugin.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/socket.h>

namespace {

constexpr int patience = 10000; // milliseconds

class message_buffer {
public:
    message_buffer() : buffer_(conf_buffer_create(0)) {}
    ~message_buffer() { conf_buffer_destroy(buffer_); }
    message_buffer(const message_buffer &) = delete;
    message_buffer &operator=(const message_buffer &) = delete;

    // Appending may move the buffer, so the library takes the address of the pointer.
    conf_buffer_t **address() { return &buffer_; }
    [[nodiscard]] char *data() const { return conf_buffer_data(buffer_); }
    [[nodiscard]] std::size_t size() const
    {
        return static_cast<std::size_t>(conf_buffer_length(buffer_));
    }

private:
    conf_buffer_t *buffer_;
};

bool send_all(int sock, const message_buffer &requests)
{
    std::size_t sent = 0;
    while (sent < requests.size()) {
        const ssize_t count =
            send(sock, requests.data() + sent, requests.size() - sent, MSG_NOSIGNAL);
        if (count < 0) {
            return false;
        }
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

bool holds_message(const message_buffer &received)
{
    msg_head_t head{};
    if (received.size() < sizeof head) {
        return false;
    }
    std::memcpy(&head, received.data(), sizeof head);
    return received.size() - sizeof head >= head.length;
}

using node_ptr = std::unique_ptr<xmlNode, decltype(&xmlFreeNode)>;

// The next message, or null when the daemon has hung up or is silent.
node_ptr receive(int sock, message_buffer &received)
{
    while (!holds_message(received)) {
        pollfd readable = {sock, POLLIN, 0};
        char bytes[4096];
        const ssize_t count =
            poll(&readable, 1, patience) == 1 ? recv(sock, bytes, sizeof bytes, 0) : 0;
        if (count <= 0 ||
            conf_buffer_append(received.address(), bytes, static_cast<int>(count)) != 0) {
            return {nullptr, xmlFreeNode};
        }
    }
    return {plugin_parse_message(received.address()), xmlFreeNode};
}

std::string name_of(const xmlNode *node)
{
    return reinterpret_cast<const char *>(node->name);
}

void print(xmlNode *message)
{
    xmlBuffer *text = xmlBufferCreate();
    if (text != nullptr && xmlNodeDump(text, nullptr, message, 0, 1) > 0) {
        std::printf("%s\n", reinterpret_cast<const char *>(xmlBufferContent(text)));
    }
    xmlBufferFree(text);
    std::fflush(stdout);
}

// Prints what arrives until there were three replies and `notifications` notifications.
bool print_messages(int sock, int notifications)
{
    message_buffer received;
    int replies = 3;
    while (replies > 0 || notifications > 0) {
        const node_ptr message = receive(sock, received);
        if (!message) {
            return false;
        }
        print(message.get());
        --(name_of(message.get()) == "rpc-reply" ? replies : notifications);
    }
    return true;
}

} // namespace

int main(int count, char **arguments)
{
    const int notifications =
        count > 1 ? static_cast<int>(std::strtol(arguments[1], nullptr, 10)) : 0;
    const int sock = conf_agent_init();
    if (sock < 0) {
        std::fprintf(stderr, "agent: the daemon cannot be reached\n");
        return 1;
    }
    message_buffer requests;
    const bool done = conf_agent_build_session(requests.address(), 1) == 0 &&
                      conf_agent_build_capability(requests.address(), 2) == 0 &&
                      conf_agent_build_notify_rpc(requests.address(), 3) == 0 &&
                      send_all(sock, requests) && print_messages(sock, notifications);
    conf_agent_exit(sock);
    return done ? 0 : 1;
}
