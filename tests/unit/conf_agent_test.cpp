// Agents: their connection, and the requests that they build, byte for byte, whole or not at all.
// This program stands in for getpwuid(), so that the documents do not depend on the machine.
#include "conf_plugin.h"
#include "support/owners.h"
#include "test_support.h"
#include "xml_memory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using texts = std::vector<std::string>;

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

using builder = int (*)(conf_buffer_t **buffer, int seq);

const std::string base = "<rpc xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" xmlns:";

// A request for the running datastore that holds an operation.
std::string get_config(const std::string &id, const std::string &operation)
{
    return base + "confd=\"com:volmar:netconf:private:oxel:device:confd\" message-id=\"" + id +
           "\"><get-config><source><running/></source><filter type=\"subtree\">" + operation +
           "</filter></get-config></rpc>";
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

const std::string subscription =
    base + "ntf=\"urn:ietf:params:xml:ns:netconf:notification:1.0\" "
           "message-id=\"subscribeNotification_1\"><ntf:create-subscription/></rpc>";

// What each builder reports when it can go no further, in the order of its steps.
struct request {
    const char *name;
    builder build;
    std::string body; // for the sequence number 7
    std::string not_appended;
    std::vector<texts> failures;
};

const std::string no_root = "<11>[ERROR] Create root node <rpc> failed.";

std::vector<texts> get_config_failures(const std::string &operation)
{
    const std::string start = "<11>[ERROR] Create ";
    const texts causes = {no_root,
                          start + "namespace <urn:ietf:params:xml:ns:netconf:base:1.0> failed.",
                          start + "attribution <message-id> failed.",
                          start +
                              "namepsace <com:volmar:netconf:private:oxel:device:confd> failed.",
                          start + "op type node get-config failed.",
                          start + "attribution subtree failed.",
                          start + "child node <" + operation + "> failed."};
    std::vector<texts> failures;
    for (const std::string &cause : causes) {
        failures.push_back({cause, no_root});
    }
    return failures;
}

std::vector<request> requests()
{
    const std::string start = "<11>[ERROR] [RE]Create ";
    const std::string dump = "<11>[ERROR] Dump xml to message for <";
    std::vector<request> list = {
        {"session", conf_agent_build_session, session("7"), dump + "create-session> failed.",
         get_config_failures("create-session")},
        {"capability", conf_agent_build_capability, capability("7"),
         dump + "get-capability> failed.", get_config_failures("get-capability")},
        {"subscription",
         conf_agent_build_notify_rpc,
         subscription,
         "<11>[ERROR] [RE]Dump xml to message for <create-subscription> failed.",
         {{start + "root node <rpc> failed."},
          {start + "namespace <urn:ietf:params:xml:ns:netconf:base:1.0> failed."},
          {start + "attribution <message-id> failed."},
          {start + "namepsace <urn:ietf:params:xml:ns:netconf:notification:1.0> failed."},
          {start + "child node failed."}}}};
    list[0].failures.push_back({"<11>[ERROR] Create child node <username> failed."});
    list[0].failures.push_back({"<11>[ERROR] Create child node <agent-ppid> failed."});
    for (request &each : list) {
        each.failures.push_back({"<11>[ERROR] Create xml buffer failed.", each.not_appended});
    }
    return list;
}

std::string framed(const std::string &body, u16_t seq)
{
    const msg_head_t head{MSG_MAGIC, static_cast<u32_t>(body.size()), seq, 0};
    return std::string(reinterpret_cast<const char *>(&head), sizeof head) + body;
}

std::string content(conf_buffer_t *buffer)
{
    return {conf_buffer_data(buffer), static_cast<std::size_t>(conf_buffer_length(buffer))};
}

class Agent : public test::Fixture {};

// ---- requests ----------------------------------------------------------------------------------

TEST_F(Agent, RequestsStandBackToBackInTheBuffer)
{
    const struct {
        builder build;
        std::string body;
        int seq;
        u16_t head_seq;
    } rows[] = {
        {conf_agent_build_session, session("7"), 7, 7},
        {conf_agent_build_capability, capability("70000"), 70000, 4464},
        {conf_agent_build_notify_rpc, subscription, 65537, 1},
        {conf_agent_build_capability, capability("-1"), -1, 65535},
        {conf_agent_build_session, session("-2147483648"), INT32_MIN, 0},
        {conf_agent_build_notify_rpc, subscription, 0, 0},
    };
    conf_buffer_t *buffer = conf_buffer_create(0);
    std::string expected = "begun";
    ASSERT_EQ(conf_buffer_append(&buffer, expected.data(), 5), 0);
    for (int round = 0; round < 3; ++round) { // beyond the first page
        for (const auto &row : rows) {
            EXPECT_EQ(row.build(&buffer, row.seq), 0);
            expected += framed(row.body, row.head_seq);
            EXPECT_EQ(content(buffer), expected);
        }
    }
    conf_buffer_destroy(buffer);
    EXPECT_EQ(test::take_system_texts(), texts());
}

// A buffer near the largest size, in which only the last page is ever touched.
class FullBuffer {
public:
    explicit FullBuffer(int room)
    {
        void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory != MAP_FAILED) {
            buffer = static_cast<conf_buffer_t *>(memory);
            buffer->total = static_cast<int32_t>(size - sizeof *buffer);
            buffer->used = buffer->total - 1 - room;
            std::memcpy(buffer->buf + buffer->used - 4, "kept", 5);
        }
    }
    ~FullBuffer() { munmap(buffer, size); }
    FullBuffer(const FullBuffer &) = delete;
    FullBuffer &operator=(const FullBuffer &) = delete;

    conf_buffer_t *buffer = nullptr;

private:
    static constexpr std::size_t size = (std::size_t{1} << 31) - 4096;
};

TEST_F(Agent, TakesTheHeaderBackWhenTheBodyCannotFollow)
{
    const texts no_room = {"<11>[ERROR] Allocate 2147483647 byte(s) memory failed(Value too large "
                           "for defined data type).",
                           "<11>[ERROR] Expand buffer failed."};
    const struct {
        int room;
        const char *message;
    } rows[] = {{11, "<11>[ERROR] Append message header to buffer failed."},
                {12, "<11>[ERROR] Append message body to outbound buffer failed."},
                {100, "<11>[ERROR] Append message body to outbound buffer failed."}};
    for (const request &each : requests()) {
        for (const auto &row : rows) {
            SCOPED_TRACE(::testing::Message() << each.name << ", room " << row.room);
            FullBuffer full(row.room);
            ASSERT_NE(full.buffer, nullptr);
            conf_buffer_t *buffer = full.buffer;
            const int used = buffer->used;
            EXPECT_EQ(each.build(&buffer, 7), -1);
            texts expected = no_room;
            expected.insert(expected.end(), {row.message, each.not_appended});
            EXPECT_EQ(test::take_system_texts(), expected);
            EXPECT_EQ(buffer, full.buffer);
            EXPECT_EQ(buffer->used, used);
            EXPECT_STREQ(buffer->buf + used - 4, "kept");
        }
        EXPECT_EQ(each.build(nullptr, 7), -1);
        EXPECT_EQ(test::take_system_texts().back(), each.not_appended);
    }
}

TEST_F(Agent, ReportsEachStepThatFails)
{
    for (const request &each : requests()) {
        std::vector<texts> reported;
        const auto scenario = [&]() -> std::optional<std::string> {
            const support::buffer_owner owner(conf_buffer_create(0));
            conf_buffer_t *buffer = owner.get();
            const int result = each.build(&buffer, 7);
            test::xml_heap.work_again();
            EXPECT_EQ(buffer, owner.get());
            const texts report = test::take_system_texts();
            if (result == 0) {
                EXPECT_EQ(report, texts());
                return content(buffer);
            }
            EXPECT_EQ(content(buffer), "");
            if (std::find(reported.begin(), reported.end(), report) == reported.end()) {
                reported.push_back(report);
            }
            return {};
        };
        EXPECT_EQ(scenario(), framed(each.body, 7));
        test::expect_whole_or_nothing(each.name, test::leaks::none, scenario);
        EXPECT_EQ(reported, each.failures) << each.name;
    }
    user_exists = false;
    conf_buffer_t *buffer = nullptr;
    EXPECT_EQ(conf_agent_build_session(&buffer, 7), -1);
    EXPECT_EQ(test::take_system_texts(),
              texts{"<11>[ERROR] Get login user information failed(Input/output error)."});
    user_exists = true;
}

// ---- connection --------------------------------------------------------------------------------

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
        EXPECT_EQ(fcntl(sock, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(fcntl(sock, F_GETFD), FD_CLOEXEC);
        const int accepted = accept(service, nullptr, nullptr);
        ASSERT_GE(accepted, 0);
        conf_agent_exit(sock);
        char byte = 0;
        EXPECT_EQ(read(accepted, &byte, 1), 0) << "closed";
        close(accepted);
        conf_agent_exit(-1);
        EXPECT_EQ(test::take_system_texts(),
                  (texts{"<15>[DEBUG] Agent connect to agent sock addr success.",
                         "<15>[DEBUG] Agent disconnect to server.",
                         "<15>[DEBUG] Agent disconnect to server."}));
    }
    conf_agent_service_disable(service);
}

TEST_F(Agent, ReportsWhyItCannotConnect)
{
    EXPECT_EQ(conf_agent_init(), -1);
    EXPECT_EQ(test::take_system_texts(),
              texts{"<11>[ERROR] Connect to agent sock addr failed(No such file or directory)."});
    EXPECT_EQ(test::without_descriptors(conf_agent_init), -1);
    EXPECT_EQ(test::take_system_texts(),
              texts{"<11>[ERROR] Create socket failed(Too many open files)."});
}

} // namespace
