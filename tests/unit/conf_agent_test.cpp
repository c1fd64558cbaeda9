// Agents: their connection, and requests that find no buffer.
#include "conf_plugin.h"
#include "reports.h"
#include "support/owners.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>

using Agent = test::Fixture;

TEST_F(Agent, BuildsNothingWithoutABuffer)
{
    EXPECT_EQ(conf_agent_build_session(nullptr, 7), -1);
    EXPECT_TRUE(
        test::take_reports().ends_with("Append message header to buffer failed.\n"
                                       "Dump xml to message for <create-session> failed.\n"));
}

TEST_F(Agent, ConnectsWhereTheProfileSays)
{
    std::filesystem::create_directories("/dev/shm/yang_modules");
    std::ofstream("/dev/shm/yang_modules/confd.conf") << R"({"working-dir": "/var/tmp"})";
    const int service = conf_agent_service_enable();
    (void)test::take_system_log(); // whether the group of the socket could be changed
    std::strcpy(g_conf_agent_socket, "/var/tmp/elsewhere");
    for (const bool with_profile : {true, false}) { // without one the path stays what it was
        const int sock = conf_agent_init();
        EXPECT_EQ(fcntl(sock, F_GETFL) & O_NONBLOCK, 0) << with_profile;
        EXPECT_EQ(fcntl(sock, F_GETFD), FD_CLOEXEC) << with_profile;
        const support::unique_fd accepted(accept(service, nullptr, nullptr));
        conf_agent_exit(sock);
        char byte = 0;
        EXPECT_EQ(read(accepted.get(), &byte, 1), 0) << "closed";
        std::filesystem::remove_all("/dev/shm/yang_modules");
    }
    EXPECT_EQ(test::take_reports().size(), 2 * (51 + 43))
        << "a line for each connection and its end";
    conf_agent_service_disable(service);
}
