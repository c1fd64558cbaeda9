// See system_log.h.
#include "system_log.h"

#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace test {

namespace {

int log_socket = -1;

} // namespace

bool open_system_log()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    log_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int room = 4 << 20;
    (void)setsockopt(log_socket, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    (void)setsockopt(log_socket, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    return bind(log_socket, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
}

int system_log_socket()
{
    return log_socket;
}

} // namespace test
