// The daemon's sockets and hooks. This program stands in for getgrnam() and chown(), so that the
// group of the agent socket does not depend on the machine.
#include "conf_plugin/plugin_internal.h"
#include "test_support.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>

using namespace test;

namespace {

int chown_result = 0;
std::string changed; // "path owner group" of each change

using Service = Fixture;

} // namespace

extern "C" group *getgrnam(const char *name)
{
    static group sudo{nullptr, nullptr, 27, nullptr};
    return std::strcmp(name, "sudo") == 0 ? &sudo : nullptr;
}

extern "C" int chown(const char *path, uid_t owner, gid_t id) noexcept
{
    changed += std::string(path) + ' ' + std::to_string(owner + 1) + ' ' + std::to_string(id);
    return chown_result;
}

TEST_F(Service, OpensItsSocketForOwnerAndGroupInPlaceOfWhatStandsThere)
{
    const std::tuple<int (*)(), void (*)(int), char *, bool> services[] = {
        {conf_plugin_service_enable, conf_plugin_service_disable, g_conf_plugin_socket, true},
        {conf_agent_service_enable, conf_agent_service_disable, g_conf_agent_socket, true},
        {conf_plugin_notifier_enable, conf_plugin_notifier_disable, g_conf_notifier_socket, false},
    };
    for (const auto &[enable, disable, path, listens] : services) {
        const std::string before = path;
        SCOPED_TRACE(before);
        std::snprintf(path, 256, "/var/tmp/%0200d", 0);
        const std::string made(path, 107); // a longer path is cut
        std::ofstream(made) << "stale";
        const mode_t outer = umask(077);
        const int sock = enable();
        struct stat status {};
        EXPECT_EQ(stat(made.c_str(), &status), 0);
        EXPECT_EQ(umask(outer), 077U);
        EXPECT_EQ(status.st_mode, S_IFSOCK | 0660U);
        int found = -1;
        socklen_t size = sizeof found;
        getsockopt(sock, SOL_SOCKET, listens ? SO_ACCEPTCONN : SO_RCVBUF, &found, &size);
        EXPECT_EQ(found, listens ? 1 : 65536); // Linux doubles the room
        const sockaddr_un address = socket_address(path);
        std::vector<support::unique_fd> waiting;
        do {
            waiting.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
        } while (connect(waiting.back().get(), reinterpret_cast<const sockaddr *>(&address),
                         sizeof address) == 0);
        EXPECT_EQ(waiting.size(), listens ? 10U : 1U) << "8, one more on Linux, and one too many";
        EXPECT_NE(fcntl(sock, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(fcntl(sock, F_GETFD), FD_CLOEXEC);
        disable(sock);
        EXPECT_EQ(fcntl(sock, F_GETFD), -1);
        EXPECT_FALSE(std::filesystem::exists(made));
        std::snprintf(path, 256, "%s", before.c_str());
    }
}

TEST_F(Service, GivesTheAgentSocketToTheGroupSudo)
{
    for (const int result : {0, -1}) {
        chown_result = result;
        changed.clear();
        conf_plugin_service_disable(conf_plugin_service_enable());
        conf_agent_service_disable(conf_agent_service_enable());
        EXPECT_EQ(changed, "/var/tmp/confd.agent.socket 0 27");
    }
    EXPECT_EQ(take_system_texts(),
              strings{"<12>[WARN] Fail to change group into sudo for agent sock path"});
}

TEST_F(Service, InstallsACopyOfTheHooksOnceInTheRecordOfTheProcess)
{
    del_plugin_from_hash(); // there is no table yet
    confd_plugin_callback_t own{};
    own.conf_plugin_save_deployment = [] { return 1; };
    EXPECT_EQ(conf_plugin_init_api(nullptr), -1);
    EXPECT_EQ(get_plugin_hooks(), nullptr);
    EXPECT_EQ(conf_plugin_init_api(&own), 0);
    own.conf_plugin_save_deployment = [] { return 2; };
    EXPECT_EQ(conf_plugin_init_api(&own), -1);
    confd_plugin_callback_t *hooks = get_plugin_hooks();
    EXPECT_EQ(hooks->conf_plugin_save_deployment(), 1);
    std::string key = "plugin_tid_" + std::to_string(getpid());
    EXPECT_EQ(conf_hash_get(g_plugin_hash, key.data()), get_plugin_from_hash());
    EXPECT_EQ(debug_lines(),
              (strings{"[ERROR] - Error input parameter.", "[INFO] - Hash key = " + key + ".",
                       "[ERROR] - Conf API had initialized."}));
    del_plugin_from_hash();
    EXPECT_EQ(conf_hash_get(g_plugin_hash, key.data()), nullptr);
    EXPECT_EQ(g_plugin_hash->num, 8U);
    std::free(hooks);
}
