// The main program of every unit test: enters private namespaces, opens /dev/log there, connects
// syslog(3) to it, and runs the tests.
#include "sandbox.h"
#include "test_support.h"

#include <cstdio>
#include <syslog.h>

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
