// Agents: their connection, and requests that find no buffer.
#include "conf_plugin.h"
#include "test_support.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>

using Agent = test::Fixture;

TEST_F(Agent, ConnectsWhereTheProfileSays)
{
    std::filesystem::create_directories("/dev/shm/yang_modules");
    std::ofstream("/dev/shm/yang_modules/confd.conf") << R"({"working-dir": "/var/tmp"})";
    const int service = conf_agent_service_enable();
    std::strcpy(g_conf_agent_socket, "/var/tmp/elsewhere");
    for (const bool with_profile : {true, false}) { // without one the path stays what it was
        (void)test::take_system_log();
        const int sock = conf_agent_init();
        EXPECT_EQ(fcntl(sock, F_GETFL) & O_NONBLOCK, 0) << with_profile;
        EXPECT_EQ(fcntl(sock, F_GETFD), FD_CLOEXEC) << with_profile;
        const support::unique_fd accepted(accept(service, nullptr, nullptr));
        conf_agent_exit(sock);
        char byte = 0;
        EXPECT_EQ(recv(accepted.get(), &byte, 1, MSG_DONTWAIT), 0) << "closed";
        EXPECT_EQ(test::take_reports(), "<15>[DEBUG] Agent connect to agent sock addr success.\n"
                                        "<15>[DEBUG] Agent disconnect to server.\n");
        std::filesystem::remove_all("/dev/shm/yang_modules");
    }
    conf_agent_service_disable(service);
    EXPECT_EQ(conf_agent_build_session(nullptr, 7), -1);
    EXPECT_TRUE(
        test::take_reports().ends_with("Append message header to buffer failed.\n"
                                       "Dump xml to message for <create-session> failed.\n"));
    EXPECT_EQ(conf_agent_build_capability(nullptr, 7) + conf_agent_build_notify_rpc(nullptr, 7),
              -2);
    EXPECT_NE(test::take_reports().find("<create-subscription> failed."), std::string::npos);
}
