// Agents: their connection, and the requests that they build, byte for byte, whole or not at all.
// This program stands in for getpwuid(), so that the documents do not depend on the machine.
#include "conf_plugin.h"
#include "memory_limits.h"
#include "reports.h"
#include "support/owners.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <sys/socket.h>

namespace {

bool user_exists = true;
char user_name[] = "a<b&c";
passwd user{};

} // namespace

extern "C" passwd *getpwuid(uid_t id)
{
    user.pw_name = user_name;
    errno = user_exists ? 0 : EIO;
    return user_exists && id == getuid() ? &user : nullptr;
}

namespace {

using test::refused;
using test::take_reports;

// A message with this id, in the namespace of requests and one more.
std::string rpc(const std::string &name_space, const std::string &id, const std::string &content)
{
    return "<rpc xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" xmlns:" + name_space +
           "\" message-id=\"" + id + "\">" + content + "</rpc>";
}

std::string get_config(const std::string &id, const std::string &operation)
{
    return rpc("confd=\"com:volmar:netconf:private:oxel:device:confd", id,
               "<get-config><source><running/></source><filter type=\"subtree\">" + operation +
                   "</filter></get-config>");
}

std::string session(const std::string &id)
{
    return get_config(id, "<confd:create-session><confd:username>a&lt;b&amp;c</confd:username>"
                          "<confd:agent-ppid>" +
                              std::to_string(getppid()) +
                              "</confd:agent-ppid></confd:create-session>");
}

std::string capability(const std::string &id)
{
    return get_config(id, "<confd:get-capability/>");
}

std::string subscription(const std::string &)
{
    return rpc("ntf=\"urn:ietf:params:xml:ns:netconf:notification:1.0", "subscribeNotification_1",
               "<ntf:create-subscription/>");
}

const struct request {
    const char *name;
    int (*build)(conf_buffer_t **buffer, int seq);
    std::string (*body)(const std::string &id);
    std::string not_appended;
} requests[] = {
    {"session", conf_agent_build_session, session,
     "Dump xml to message for <create-session> failed."},
    {"capability", conf_agent_build_capability, capability,
     "Dump xml to message for <get-capability> failed."},
    {"subscription", conf_agent_build_notify_rpc, subscription,
     "[RE]Dump xml to message for <create-subscription> failed."},
};

std::string framed(const std::string &body, int seq)
{
    const msg_head_t head{MSG_MAGIC, static_cast<u32_t>(body.size()), static_cast<u16_t>(seq), 0};
    return std::string(reinterpret_cast<const char *>(&head), sizeof head) + body;
}

std::string content(conf_buffer_t *buffer)
{
    return {conf_buffer_data(buffer), static_cast<std::size_t>(conf_buffer_length(buffer))};
}

class Agent : public test::Fixture {};

TEST_F(Agent, RequestsStandBackToBackInTheBuffer)
{
    conf_buffer_t *buffer = conf_buffer_create(0);
    std::string expected;
    for (const int seq : {7, 0, 65537, 70000, -1, INT32_MIN}) {
        for (const request &each : requests) {
            EXPECT_EQ(each.build(&buffer, seq), 0);
            expected += framed(each.body(std::to_string(seq)), seq);
            EXPECT_EQ(content(buffer), expected);
        }
    }
    EXPECT_GT(buffer->used, 4096) << "not beyond the first page";
    conf_buffer_destroy(buffer);
    EXPECT_EQ(take_reports(), "");
}

TEST_F(Agent, TakesTheHeaderBackWhenTheBodyCannotFollow)
{
    if (!test::memory_can_be_limited()) {
        GTEST_SKIP() << "the limits of memory cannot be reached here";
    }
    constexpr std::int64_t nearly_largest = (std::int64_t{1} << 31) - 4096;
    const std::string no_room = "Allocate 2147483647 byte(s) memory failed(Value too large for "
                                "defined data type).\nExpand buffer failed.\n";
    for (const request &each : requests) {
        for (const int room : {11, 12, 100}) {
            SCOPED_TRACE(::testing::Message() << each.name << ", room " << room);
            conf_buffer_t *const full = test::reserve_buffer(nearly_largest, room);
            ASSERT_NE(full, nullptr);
            const int used = full->used;
            std::memcpy(full->buf + used - 4, "kept", 5);
            conf_buffer_t *buffer = full;
            refused(each.build(&buffer, 7), -1,
                    no_room +
                        (room < 12 ? "Append message header to buffer failed.\n"
                                   : "Append message body to outbound buffer failed.\n") +
                        each.not_appended);
            EXPECT_EQ(buffer, full);
            EXPECT_EQ(full->used, used);
            EXPECT_STREQ(full->buf + used - 4, "kept");
            test::release_buffer(full);
        }
        EXPECT_EQ(each.build(nullptr, 7), -1);
        EXPECT_TRUE(take_reports().ends_with(each.not_appended + "\n"));
    }
}

TEST_F(Agent, NeedsItsUser)
{
    user_exists = false;
    conf_buffer_t *buffer = nullptr;
    refused(conf_agent_build_session(&buffer, 7), -1,
            "Get login user information failed(Input/output error).");
    user_exists = true;
}

TEST_F(Agent, ConnectsWhereTheProfileSays)
{
    const std::string profile = "/dev/shm/yang_modules/confd.conf";
    std::filesystem::create_directories("/dev/shm/yang_modules");
    std::filesystem::create_directories("/var/tmp/agents");
    std::ofstream(profile) << R"({"working-dir": "/var/tmp/agents"})";
    ASSERT_EQ(conf_load_config(nullptr), 0);
    const int service = conf_agent_service_enable();
    (void)test::take_system_log(); // whether the group of the socket could be changed
    std::strcpy(g_conf_agent_socket, "/var/tmp/elsewhere");
    for (const bool with_profile : {true, false}) { // without one the path stays what it was
        SCOPED_TRACE(with_profile);
        if (!with_profile) {
            std::filesystem::remove(profile);
        }
        const int sock = conf_agent_init();
        ASSERT_GE(sock, 0);
        EXPECT_EQ(take_reports(), "<15>[DEBUG] Agent connect to agent sock addr success.\n");
        EXPECT_EQ(fcntl(sock, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(fcntl(sock, F_GETFD), FD_CLOEXEC);
        const support::unique_fd accepted(accept(service, nullptr, nullptr));
        ASSERT_TRUE(accepted);
        refused((conf_agent_exit(sock), 0), 0, "<15>[DEBUG] Agent disconnect to server.");
        char byte = 0;
        EXPECT_EQ(read(accepted.get(), &byte, 1), 0) << "closed";
    }
    refused((conf_agent_exit(-1), 0), 0, "<15>[DEBUG] Agent disconnect to server.");
    conf_agent_service_disable(service);
}

TEST_F(Agent, ReportsWhyItCannotConnect)
{
    refused(conf_agent_init(), -1, "Connect to agent sock addr failed(No such file or directory).");
    refused(test::without_descriptors(conf_agent_init), -1,
            "Create socket failed(Too many open files).");
}

} // namespace
