// Notifications: one datagram to the daemon's notifier socket for each call. Needs no plugin, and
// keeps nothing from one call to the next.
#include "plugin_internal.h"
#include "support/log.h"
#include "support/owners.h"
#include "xml_write.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <span>
#include <sys/socket.h>

namespace {

constexpr int retries = 4; // after the first attempt
constexpr timespec retry_interval = {5, 0};

support::unique_fd open_notifier()
{
    return support::unique_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

ssize_t send_to_notifier(const support::unique_fd &sock, std::span<const char> payload, int flags)
{
    const sockaddr_un address = socket_address(g_conf_notifier_socket);
    return sendto(sock.get(), payload.data(), payload.size(), flags,
                  reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

// Waits for room in the socket, also in a process with a timer that interrupts it.
ssize_t send_and_wait(const support::unique_fd &sock, std::span<const char> payload)
{
    ssize_t sent = -1;
    do {
        sent = send_to_notifier(sock, payload, 0);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

// A text goes out with its terminating zero byte.
std::span<const char> payload_of(const char *text)
{
    return {text, std::strlen(text) + 1};
}

bool is_whole(ssize_t sent, std::span<const char> payload)
{
    return sent >= 0 && static_cast<std::size_t>(sent) == payload.size();
}

// As long as it takes, also in a process with a timer that interrupts it.
void rest()
{
    timespec left = retry_interval;
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace

int econf_notify(const char *name, xmlNode *data)
{
    if (name == nullptr || data == nullptr) {
        LOG_FILE_ERROR("Error input parameter(name=%p, node=%p).", static_cast<const void *>(name),
                       static_cast<void *>(data));
        return -1;
    }
    text_block text;
    switch (print_node(&text, data, odd_bytes::refused)) {
    case printed::no_room:
        LOG_FILE_ERROR("Create xml buffer for cache rpc failed.");
        return -1;
    case printed::not_printable:
        LOG_FILE_ERROR("Dump data node failed.");
        return -1;
    case printed::whole:
        break;
    }

    const support::unique_fd sock = open_notifier();
    if (!sock) {
        LOG_FILE_ERROR("Create notification socket failed(%s).", std::strerror(errno));
        return -1;
    }
    const std::span<const char> payload(text.bytes, text.size);
    if (!is_whole(send_and_wait(sock, payload), payload)) {
        LOG_FILE_ERROR("Send notification %s failed failed(%s).", name, std::strerror(errno));
        return -1;
    }
    return 0;
}

int conf_notify(char *name, char *data)
{
    if (name == nullptr || data == nullptr) {
        LOG_FILE_ERROR("Error input parameter(list=%p, node=%p).", static_cast<void *>(name),
                       static_cast<void *>(data));
        return -1;
    }
    const support::unique_fd sock = open_notifier();
    if (!sock) {
        LOG_FILE_ERROR("Create notifier socket failed(%s).", std::strerror(errno));
        return -1;
    }
    const ssize_t sent = send_and_wait(sock, payload_of(data));
    const int cause = errno;
    LOG_FILE_INFO("Sent notification to confd, length is %d", static_cast<int>(sent));
    if (!is_whole(sent, payload_of(data))) {
        LOG_FILE_ERROR("Send notification %s failed failed(%s).", name, std::strerror(cause));
        return -1;
    }
    return 0;
}

int conf_notify_nonblock(char *name, char *data)
{
    if (name == nullptr || data == nullptr) {
        LOG_SYSTEM_ERROR("Error input parameter(list=%p, node=%p).", static_cast<void *>(name),
                         static_cast<void *>(data));
        return -1;
    }
    const support::unique_fd sock = open_notifier();
    if (!sock) {
        LOG_SYSTEM_ERROR("Create notifier socket failed(%s).", std::strerror(errno));
        return -1;
    }

    int tryTime = retries;
    ssize_t sent = -1;
    int cause = 0; // kept, since sleeping, logging and closing all may change errno
    while (tryTime >= 0) {
        sent = send_to_notifier(sock, payload_of(data), MSG_DONTWAIT);
        cause = errno;
        if (sent >= 0 || (cause != EAGAIN && cause != EINTR)) {
            break;
        }
        --tryTime;
        rest();
    }
    LOG_SYSTEM_INFO("Sent notification to confd with non block mode, length is %d tryTime=%d",
                    static_cast<int>(sent), tryTime);
    if (is_whole(sent, payload_of(data))) {
        return 0;
    }
    if (cause == EAGAIN) {
        LOG_SYSTEM_WARN("[TOO MUCH]Send notification %s failed failed(%s) %d.", name,
                        std::strerror(cause), cause);
        return 0;
    }
    LOG_SYSTEM_ERROR("Send notification %s failed failed(%s) %d.", name, std::strerror(cause),
                     cause);
    return -1;
}
