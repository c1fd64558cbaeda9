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
#include <unistd.h>

using namespace test;

namespace {

group sudo_group{};
bool sudo_exists = false;
bool chown_works = true;
strings changed_groups; // "path owner group" of each change

} // namespace

extern "C" group *getgrnam(const char *name)
{
    sudo_group.gr_gid = 27;
    return sudo_exists && std::strcmp(name, "sudo") == 0 ? &sudo_group : nullptr;
}

extern "C" int chown(const char *path, uid_t owner, gid_t group_id) noexcept
{
    changed_groups.push_back(std::string(path) + " " + std::to_string(static_cast<int>(owner)) +
                             " " + std::to_string(group_id));
    return chown_works ? 0 : -1;
}

namespace {

struct service {
    int (*enable)();
    void (*disable)(int);
    char (&path)[256];
    int type;
    const char *name; // in its messages
    bool in_system_log;
};

const service services[] = {
    {conf_plugin_service_enable, conf_plugin_service_disable, g_conf_plugin_socket, SOCK_STREAM,
     "conf-plugin", false},
    {conf_agent_service_enable, conf_agent_service_disable, g_conf_agent_socket, SOCK_STREAM,
     "agent", true},
    {conf_plugin_notifier_enable, conf_plugin_notifier_disable, g_conf_notifier_socket, SOCK_DGRAM,
     "notifier", false},
};

int option(int sock, int name)
{
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(sock, SOL_SOCKET, name, &value, &size);
    return value;
}

// How many clients can connect before the daemon accepts one.
int room_for_clients(const char *path)
{
    const sockaddr_un address = socket_address(path);
    std::vector<support::unique_fd> clients;
    do {
        clients.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    } while (connect(clients.back().get(), reinterpret_cast<const sockaddr *>(&address),
                     sizeof address) == 0);
    return static_cast<int>(clients.size()) - 1;
}

std::string use_path(const service &s, const std::string &path)
{
    const std::string before = s.path;
    std::snprintf(s.path, sizeof s.path, "%s", path.c_str());
    return before;
}

using Service = Fixture;

TEST_F(Service, OpensItsSocketForOwnerAndGroupInPlaceOfWhatStandsThere)
{
    for (const service &s : services) {
        for (const mode_t mask : {0U, 022U, 077U, 0777U}) {
            std::ofstream(s.path) << "stale";
            const mode_t outer = umask(mask);
            const int sock = s.enable();
            EXPECT_EQ(umask(outer), mask) << s.name;
            ASSERT_GE(sock, 0) << s.name;
            struct stat status {};
            ASSERT_EQ(stat(s.path, &status), 0);
            EXPECT_EQ(status.st_mode, S_IFSOCK | 0660U) << s.name;
            EXPECT_EQ(option(sock, SO_TYPE), s.type);
            EXPECT_NE(fcntl(sock, F_GETFL) & O_NONBLOCK, 0) << s.name;
            EXPECT_EQ(fcntl(sock, F_GETFD), FD_CLOEXEC) << s.name;
            if (s.type == SOCK_STREAM) {
                EXPECT_EQ(room_for_clients(s.path), 8 + 1); // Linux lets one more than that wait
            } else {
                EXPECT_EQ(option(sock, SO_RCVBUF), 2 * 32768); // Linux doubles what it is asked for
            }
            s.disable(sock);
            EXPECT_EQ(fcntl(sock, F_GETFD), -1) << s.name;
            EXPECT_FALSE(std::filesystem::exists(s.path)) << s.name;
        }
        std::ofstream(s.path) << "stale";
        s.disable(-1);
        EXPECT_FALSE(std::filesystem::exists(s.path)) << s.name;
    }
    EXPECT_EQ(debug_lines(), strings());
    EXPECT_EQ(take_system_texts(), strings());
}

TEST_F(Service, CutsALongPath)
{
    const std::string path = "/var/tmp/" + std::string(200, 'x');
    for (const service &s : services) {
        const std::string before = use_path(s, path);
        std::ofstream(path.substr(0, 107)) << "stale";
        const int sock = s.enable();
        EXPECT_GE(sock, 0) << s.name;
        s.disable(sock);
        EXPECT_FALSE(std::filesystem::exists(path.substr(0, 107))) << s.name;
        use_path(s, before);
    }
}

TEST_F(Service, GivesTheAgentSocketToTheGroupSudo)
{
    const std::string warning = "<12>[WARN] Fail to change group into sudo for agent sock path";
    for (const auto &[exists, works] : {std::pair{false, true}, {true, true}, {true, false}}) {
        sudo_exists = exists;
        chown_works = works;
        changed_groups.clear();
        for (const service &s : services) {
            const int sock = s.enable();
            EXPECT_GE(sock, 0);
            s.disable(sock);
        }
        EXPECT_EQ(changed_groups,
                  exists ? strings{"/var/tmp/confd.agent.socket -1 27"} : strings());
        EXPECT_EQ(take_system_texts(), works ? strings() : strings{warning});
    }
    sudo_exists = false;
}

TEST_F(Service, ReportsWhatFails)
{
    for (const service &s : services) {
        const std::string before = use_path(s, "/var/tmp/missing/socket");
        const mode_t outer = umask(022);
        EXPECT_EQ(s.enable(), -1);
        EXPECT_EQ(umask(outer), 022U);
        const std::string text =
            std::string("Bind ") + s.name + " socket failed(No such file or directory).";
        EXPECT_EQ(take_errors(), s.in_system_log ? "" : text);
        EXPECT_EQ(without_descriptors(s.enable), -1);
        strings system; // the debug file cannot be opened without a descriptor
        if (s.in_system_log) {
            system = {"<11>[ERROR] " + text,
                      "<11>[ERROR] Create agent socket failed(Too many open files)."};
        }
        EXPECT_EQ(take_system_texts(), system);
        use_path(s, before);
    }
}

TEST_F(Service, InstallsACopyOfTheHooksOnce)
{
    confd_plugin_callback_t own{};
    own.conf_plugin_save_deployment = [] { return 1; };
    own.conf_plugin_reply = [](int, xmlNode *, xmlNode *) { return 8; };
    EXPECT_EQ(conf_plugin_init_api(nullptr), -1);
    EXPECT_EQ(get_plugin_hooks(), nullptr);
    ASSERT_EQ(conf_plugin_init_api(&own), 0);
    const confd_plugin_callback_t given = own;
    own.conf_plugin_save_deployment = [] { return 2; };
    EXPECT_EQ(conf_plugin_init_api(&own), -1);
    confd_plugin_callback_t *hooks = get_plugin_hooks();
    ASSERT_NE(hooks, nullptr);
    EXPECT_EQ(std::memcmp(hooks, &given, sizeof given), 0);
    EXPECT_EQ(hooks->conf_plugin_save_deployment(), 1);
    EXPECT_EQ(take_errors(), "Error input parameter.\nConf API had initialized.");
    del_plugin_from_hash();
    std::free(hooks);
}

} // namespace
