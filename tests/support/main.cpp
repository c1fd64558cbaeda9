// The main program of every unit test: enters private namespaces, opens /dev/log there, connects
// syslog(3) to it, and runs the tests.
#include "sandbox.h"
#include "test_main.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace test {

namespace {

int log_socket = -1;

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

} // namespace

int system_log_socket()
{
    return log_socket;
}

} // namespace test

// AddressSanitizer, where it is built in, asks this whether a failed allocation ends the program.
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1";
}

int main(int count, char **arguments)
{
    ::testing::InitGoogleTest(&count, arguments);
    std::string error;
    if (!sandbox::enter({}, error)) {
        std::fprintf(stderr, "no sandbox for the test: %s\n", error.c_str());
        return 1;
    }
    if (!test::open_system_log()) {
        std::perror("/dev/log");
        return 1;
    }
    openlog("test", LOG_NDELAY, LOG_USER); // connected now, so that tests see equal descriptors
    return RUN_ALL_TESTS();
}
