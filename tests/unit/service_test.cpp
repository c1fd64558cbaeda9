// The daemon's sockets and hooks. This program stands in for getgrnam() and chown(), so that the
// group of the agent socket does not depend on the machine.
#include "conf_plugin/plugin_internal.h"
#include "test_support.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using texts = std::vector<std::string>;

group sudo_group{};
bool sudo_exists = false;
bool chown_works = true;
texts changed_groups; // "path owner group" of each change

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
    std::vector<int> clients;
    int result = 0;
    while (result == 0) {
        clients.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
        result =
            connect(clients.back(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    }
    for (const int client : clients) {
        close(client);
    }
    return static_cast<int>(clients.size()) - 1;
}

void use_path(const service &s, const std::string &path)
{
    std::snprintf(s.path, sizeof s.path, "%s", path.c_str());
}

bool exists(const std::string &path)
{
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

class Service : public test::Fixture {};

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
            EXPECT_FALSE(exists(s.path)) << s.name;
        }
        std::ofstream(s.path) << "stale";
        s.disable(-1);
        EXPECT_FALSE(exists(s.path)) << s.name;
    }
    EXPECT_EQ(test::debug_lines(), texts());
    EXPECT_EQ(test::take_system_texts(), texts());
}

TEST_F(Service, CutsALongPath)
{
    for (const service &s : services) {
        const std::string before = s.path;
        const std::string path = "/var/tmp/" + std::string(200, 'x');
        use_path(s, path);
        for (const int again : {1, 2}) {
            const int sock = s.enable();
            EXPECT_GE(sock, 0) << s.name << again;
            EXPECT_TRUE(exists(path.substr(0, 107))) << s.name;
            again == 1 ? (void)close(sock) : s.disable(sock);
        }
        EXPECT_FALSE(exists(path.substr(0, 107))) << s.name;
        use_path(s, before);
    }
}

TEST_F(Service, GivesTheAgentSocketToTheGroupSudo)
{
    const struct {
        bool exists, works;
        texts changes, log;
    } cases[] = {
        {false, true, {}, {}},
        {true, true, {"/var/tmp/confd.agent.socket -1 27"}, {}},
        {true,
         false,
         {"/var/tmp/confd.agent.socket -1 27"},
         {"<12>[WARN] Fail to change group into sudo for agent sock path"}},
    };
    for (const auto &c : cases) {
        sudo_exists = c.exists;
        chown_works = c.works;
        for (const service &s : services) {
            changed_groups.clear();
            const int sock = s.enable();
            EXPECT_GE(sock, 0);
            s.disable(sock);
            EXPECT_EQ(changed_groups, s.in_system_log ? c.changes : texts()) << s.name;
            EXPECT_EQ(test::take_system_texts(), s.in_system_log ? c.log : texts()) << s.name;
        }
    }
    sudo_exists = false;
}

TEST_F(Service, ReportsWhatFails)
{
    for (const service &s : services) {
        const std::string before = s.path;
        use_path(s, "/var/tmp/missing/socket");
        test::clear_debug_file();
        const mode_t outer = umask(022);
        EXPECT_EQ(s.enable(), -1);
        EXPECT_EQ(umask(outer), 022U);
        const std::string text =
            std::string("Bind ") + s.name + " socket failed(No such file or directory).";
        EXPECT_EQ(test::debug_texts(DBG_ERROR), s.in_system_log ? texts() : texts{text});
        EXPECT_EQ(test::take_system_texts(),
                  s.in_system_log ? texts{"<11>[ERROR] " + text} : texts());

        rlimit limit{};
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
        const rlimit none = {0, limit.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
        const int sock = s.enable();
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        EXPECT_EQ(sock, -1);
        EXPECT_EQ(test::take_system_texts(),
                  s.in_system_log
                      ? texts{"<11>[ERROR] Create agent socket failed(Too many open files)."}
                      : texts()); // the debug file cannot be opened either
        use_path(s, before);
    }
}

TEST_F(Service, InstallsACopyOfTheHooksOnce)
{
    confd_plugin_callback_t own{};
    own.conf_plugin_save_deployment = [] { return 1; };
    own.conf_plugin_reply = [](int, xmlNode *, xmlNode *) { return 8; };
    EXPECT_EQ(get_plugin_hooks(), nullptr);
    EXPECT_EQ(conf_plugin_init_api(nullptr), -1);
    EXPECT_EQ(get_plugin_hooks(), nullptr);
    ASSERT_EQ(conf_plugin_init_api(&own), 0);
    const confd_plugin_callback_t given = own;
    own.conf_plugin_save_deployment = [] { return 2; };
    EXPECT_EQ(conf_plugin_init_api(&own), -1);
    confd_plugin_callback_t *hooks = get_plugin_hooks();
    ASSERT_NE(hooks, nullptr);
    EXPECT_NE(hooks, &own);
    EXPECT_EQ(std::memcmp(hooks, &given, sizeof given), 0);
    EXPECT_EQ(hooks->conf_plugin_save_deployment(), 1);
    EXPECT_EQ(test::debug_texts(DBG_ERROR),
              (texts{"Error input parameter.", "Conf API had initialized."}));
    del_plugin_from_hash();
    std::free(hooks);
}

} // namespace
