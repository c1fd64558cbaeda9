// Looks for secrets in the memory of a plugin, plain or supervised, that has handled them.
//
// A process of its own plays the plugin, so that its heap, stacks and mappings can be searched from
// outside. A secret is made after that process has begun, and reaches it on one road only: in a
// message of the daemon, or through a pipe when the plugin itself hands it to the library. What the
// plugin holds itself it wipes.
#include "conf_supervisor.h"
#include "demo_plugin.h"

#include "support/bounded.h"
#include "support/log.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <pthread.h>
#include <random>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>

namespace {

using namespace test;

constexpr std::size_t token_size = 16;
std::array<char, token_size + 1> held;    // what the plugin has been given for the present road
econf_supervisor_t *supervisor = nullptr; // of a supervised one

// ---- the plugin --------------------------------------------------------------------------------

// With what is held in the middle: what is small, the allocator itself overwrites when it is freed.
class long_text {
public:
    explicit long_text(const char *begin)
    {
        std::fill_n(text_, sizeof text_ - 1, '-');
        std::memcpy(text_, begin, std::strlen(begin));
        std::memcpy(text_ + sizeof text_ / 2, held.data(), std::strlen(held.data()));
    }
    ~long_text() { support::wipe(text_, sizeof text_); }
    const char *get() const { return text_; }

private:
    char text_[600] = "";
};

xmlNode *node_with_secret()
{
    xmlNode *node = new_element("node");
    xmlNode *inner = add_element(node, "inner");
    for (int i = 0; i < 600; ++i) {
        (void)add_text(inner, "leaf", held.data());
    }
    support::wipe_stack(); // of what libxml2 left there for the plugin itself
    return node;
}

void handle_one()
{
    const bool is_plain = supervisor == nullptr;
    const int fd = is_plain ? get_plugin_context()->sock : econf_supervisor_fd(supervisor);
    pollfd readable{fd, POLLIN, 0};
    (void)poll(&readable, 1, 60000);
    is_plain ? econf_plugin_run() : (void)econf_supervisor_process(supervisor);
}

template <int (*call)(bool_t, const char *, xmlNode **)>
void read_and_wipe()
{
    xmlNode *list = nullptr;
    (void)call(false, long_text("/a").get(), &list);
    wipe_and_free_list(list);
}

template <int (*call)(xmlNode *)>
void hand_over()
{
    xmlNode *node = node_with_secret();
    (void)call(node);
    wipe_and_free(node);
}

// The older interface lets callbacks cut what they are given.
void cut(const char *text)
{
    if (text != nullptr) {
        const_cast<char *>(text)[1] = '\0';
    }
}

int on_config(int, int, int, int, const char *path)
{
    cut(path);
    if (held[0] == '\0') {
        return 0;
    }
    econf_plugin_error(7, long_text("").get());
    return 7;
}

int on_status(int, const char *, const char *filter, xmlNode **status)
{
    cut(filter);
    *status = held[0] == '\0' ? nullptr : node_with_secret();
    return 0;
}

int on_operate(int, xmlNode *input, xmlNode **output)
{
    *output = held[0] == '\0' ? xmlDocCopyNodeList(nullptr, input) : node_with_secret();
    return 0;
}

// ---- the roads ---------------------------------------------------------------------------------

// A text of the daemon's: "$" stands for the secret; "%" for short texts with it, a long one with
// line ends and characters of several bytes, and one with entities.
std::string with(const std::string &secret, std::string text)
{
    std::string content = "<short>$</short><mixed>$<i/>$&amp;$</mixed><long>";
    for (int i = 0; i < 400; ++i) {
        content += i % 7 == 0 ? "$\n" : "$\xc3\xa9";
    }
    for (std::size_t at; (at = text.find_first_of("%$")) != std::string::npos;) {
        text.replace(at, 1, text[at] == '$' ? secret : content + "</long>");
    }
    return text;
}

constexpr auto push = [](xmlNode *node) { return econf_plugin_push("/a", node); };
constexpr auto deploy = [](xmlNode *node) { return econf_plugin_config_deployment("/a", 0, node); };
constexpr auto tell = [](xmlNode *node) { return econf_notify(std::string("demo").data(), node); };
constexpr auto pull = read_and_wipe<econf_plugin_pull>;
constexpr auto locate = read_and_wipe<econf_plugin_locate>;

void keep_in_table()
{
    static conf_hash_tbl_t *const table = conf_hash_create(1);
    char key[] = "key";
    (void)conf_hash_add(table, key, held.data(), token_size);
    conf_hash_del(table, key);
}

void pull_and_end()
{
    pull();
    supervisor == nullptr ? econf_plugin_close() : econf_supervisor_destroy(supervisor);
    supervisor = nullptr;
}

constexpr auto log_to_file = [] { _conf_write_log(DBG_ERROR, "%s", held.data()); };
constexpr auto log_to_system = [] {
    safety_syslog(LOG_INFO, "%40000s<key>%s</key>%c%s", "", held.data(), 0, held.data());
};
const std::string foreign = rpc("publish", "<params>%</params>", "8");

const struct road {
    const char *name;
    bool plugin_has_it;
    void (*plugin)();
    std::string answer; // of the daemon, content; else it sends and awaits a reply
    strings sent = {};  // before that; in frames but for what begins with "!". Where there is an
                        // answer, requests that a plain plugin drops and a supervised one keeps
} roads[] = {
    {"change", false, handle_one, "", {config("/a[k=\"$$$$$$$$\"]")}},
    {"refusal", true, handle_one, "", {config("/a")}},
    {"request", false, handle_one, "", {subscribe("<path>/a</path><filter>$$$$$$$$</filter>")}},
    {"status", true, handle_one, "", {subscribe("<path>/a</path>")}},
    {"operation echoed", false, handle_one, "", {operate("%")}},
    {"output", true, handle_one, "", {operate("<a/>")}},
    {"pull", false, pull, "<result><data>%</data></result>"},
    {"locate", false, locate, "<result><prev>/a[k=\"$\"]</prev></result>"},
    {"pull of a path", true, pull, "<result/>"},
    {"locate of a path", true, locate, "<result/>"},
    {"pull refused", false, pull, error("1", "$")},
    {"push", true, hand_over<push>, "<result/>"},
    {"push refused", false, hand_over<push>, error("1", "$$")},
    {"deployment", true, hand_over<deploy>, "<result/>"},
    {"notification", true, hand_over<tell>, ""},
    {"meanwhile", false, pull, "<result/>", {foreign, foreign}},
    {"malformed message and junk", false, handle_one, "", {"<rpc>%", "!$$", config("/a")}},
    {"table", true, keep_in_table, ""},
    {"debug file", true, log_to_file, ""},
    {"system log", true, log_to_system, ""},
    {"until the end", false, pull_and_end, "<result/>", {foreign, foreign}},
};

bool join(econf_plugin_subpub_info_t *callbacks, bool is_supervised)
{
    if (!is_supervised) {
        return econf_plugin_init("demo", callbacks) >= 0 &&
               econf_plugin_activate(ACTIVATE_WITH_NONE) == 0;
    }
    supervisor = econf_supervisor_create("demo", callbacks, nullptr);
    handle_one();
    return econf_supervisor_reason(supervisor)[0] == '\0';
}

[[noreturn]] void play_plugin(int tokens, int done, bool is_supervised)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    char name[] = "echo";
    econf_config_cb_info_t configs[] = {{"/a", 1, on_config}, {}};
    econf_status_cb_info_t statuses[] = {{"/a", on_status}, {}};
    econf_operate_cb_info_t operations[] = {{name, on_operate}, {}};
    econf_plugin_subpub_info_t callbacks{configs, statuses, operations, nullptr};
    bool all_well = join(&callbacks, is_supervised);
    for (const road &each : roads) { // each begins when the secret, or a blank, has come
        all_well = all_well && read(tokens, held.data(), token_size) == token_size;
        each.plugin();
        if (supervisor != nullptr) {
            (void)econf_supervisor_process(supervisor); // what was kept
        }
        held.fill('\0');
        (void)write(done, all_well ? "y" : "n", 1);
    }
    _exit(pause()); // when it is killed
}

// ---- the search --------------------------------------------------------------------------------

// Where a text stands in the memory of a process, a line for each time.
std::string search(pid_t process, const std::string &text)
{
    const std::string directory = "/proc/" + std::to_string(process);
    const support::unique_fd memory(open((directory + "/mem").c_str(), O_RDONLY));
    std::ifstream maps(directory + "/maps");
    std::string found;
    for (std::string line; std::getline(maps, line);) {
        std::size_t dash = 0;
        const unsigned long begin = std::stoul(line, &dash, 16);
        const unsigned long end = std::stoul(line.substr(dash + 1), nullptr, 16);
        std::string bytes(end - begin, '\0');
        const ssize_t count = pread(memory.get(), bytes.data(), bytes.size(), off_t(begin));
        bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0))); // some cannot be read
        for (std::size_t at = 0; (at = bytes.find(text, at)) != std::string::npos; ++at) {
            found += line + '\n';
        }
    }
    return found;
}

class SecretsTest : public PluginFixture {
protected:
    void search_behind_each_road(bool is_supervised);
};

void SecretsTest::search_behind_each_road(bool is_supervised)
{
    std::random_device random;
    int tokens[2], done[2];
    ASSERT_EQ(pipe(tokens), 0);
    ASSERT_EQ(pipe(done), 0);
    const pid_t plugin = fork();
    if (plugin == 0) {
        play_plugin(tokens[0], done[1], is_supervised);
    }
    daemon.play([&](Peer &connection) {
        (void)connection.answer("<result/>");
        (void)connection.answer("<result/>");
        EXPECT_NE(search(plugin, "malformed message"), "") << "nothing is found";
        for (const road &each : roads) {
            std::string secret(token_size, '\0');
            std::generate(secret.begin(), secret.end(),
                          [&] { return static_cast<char>('a' + random() % 26); });
            const std::string given = each.plugin_has_it ? secret : std::string(token_size, '\0');
            EXPECT_EQ(write(tokens[1], given.data(), token_size), token_size);
            std::string stream;
            for (const std::string &body : each.sent) {
                const std::string bytes = with(secret, body);
                stream += bytes[0] == '!' ? bytes.substr(1) : framed(bytes);
            }
            connection.send(stream);
            if (!each.answer.empty()) {
                (void)connection.answer(with(secret, each.answer));
                for (std::size_t kept = is_supervised ? each.sent.size() : 0; kept > 0; --kept) {
                    (void)connection.receive();
                }
            } else if (!each.sent.empty()) {
                (void)connection.receive();
            }
            char answer = 'n';
            EXPECT_EQ(read(done[0], &answer, 1), 1) << each.name;
            EXPECT_EQ(answer, 'y') << each.name;
            for (const std::string &message : take_system_log()) {
                EXPECT_EQ(message.find(secret), std::string::npos) << each.name << ": " << message;
            }
            EXPECT_EQ(search(plugin, secret), "") << each.name;
        }
    });
    daemon.finish();
    kill(plugin, SIGKILL);
    EXPECT_EQ(waitpid(plugin, nullptr, 0), plugin);
    for (const int fd : {tokens[0], tokens[1], done[0], done[1]}) {
        close(fd);
    }
}

TEST_F(SecretsTest, LeaveNoTraceInMemory)
{
    search_behind_each_road(false);
}

TEST_F(SecretsTest, LeaveNoTraceInMemoryUnderASupervisor)
{
    search_behind_each_road(true);
}

// ---- the stack ---------------------------------------------------------------------------------

struct call {
    const char *name;
    void (*make)(const std::string &secret);
    const std::string *secret = nullptr;
};

// The stack of a thread behind a call: when the thread has ended, nothing has covered what is left.
// It is a small stack, and what lies below it must stay as it is.
std::string stack_behind(call made)
{
    constexpr std::size_t size = 28672, below = 65536;
    const std::unique_ptr<char, decltype(&std::free)> memory(
        static_cast<char *>(std::aligned_alloc(4096, below + size)), std::free);
    std::fill_n(memory.get(), below, 'x');
    pthread_attr_t attributes;
    pthread_t thread;
    pthread_attr_init(&attributes);
    EXPECT_EQ(pthread_attr_setstack(&attributes, memory.get() + below, size), 0);
    const auto body = [](void *argument) -> void * {
        volatile char room[4096]; // which the end of the thread takes
        room[0] = '\0';
        const auto *given = static_cast<call *>(argument);
        given->make(*given->secret);
        return room[0] == '\0' ? nullptr : argument;
    };
    EXPECT_EQ(pthread_create(&thread, &attributes, body, &made), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(std::count(memory.get(), memory.get() + below, 'x'), below) << made.name;
    return {memory.get() + below, size};
}

TEST_F(SecretsTest, LeaveNothingOnTheStack)
{
    const call calls[] = {
        {"received",
         [](const std::string &secret) {
             int ends[2];
             (void)socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends);
             const std::string bytes = framed(secret);
             (void)write(ends[1], bytes.data(), bytes.size());
             conf_plugin_context_t own{};
             own.sock = ends[0];
             own.recv_buf = conf_buffer_create(0);
             conf_plugin_data plugin{};
             plugin.plugin_ctxt = &own;
             bool_t ready = false;
             (void)_recv_message(&plugin, &ready);
             conf_buffer_destroy(own.recv_buf);
             close(ends[0]);
             close(ends[1]);
         }},
        {"parsed",
         [](const std::string &secret) {
             std::string body = "<a>\xc3\xa9" + secret + "\xc3\xa9</a>";
             wipe_and_free(parse_body({body.data(), body.size()}).root);
         }},
        {"parsed by libxml2",
         [](const std::string &secret) {
             std::string body = "<a>\xc3\xa9" + secret + "\xc3\xa9<!----></a>";
             wipe_and_free(parse_body({body.data(), body.size()}).root);
         }},
        {"printed",
         [](const std::string &secret) {
             const node_ptr node(new_element("a"));
             (void)add_text(node.get(), "b", ("\xc3\xa9<" + secret).c_str());
             support::wipe_stack();
             text_block text;
             (void)print_node(&text, node.get(), odd_bytes::refused);
         }},
        {"to the debug file",
         [](const std::string &secret) { _conf_write_log(DBG_ERROR, "%s", secret.c_str()); }},
        {"to the system log",
         [](const std::string &secret) { safety_syslog(LOG_INFO, "%s", secret.c_str()); }},
    };
    const std::string secret = "nobody may read this";
    REG_RemarkKeyInfo(nullptr, 0); // compiling the patterns takes more stack, once
    for (call each : calls) {
        each.secret = &secret;
        EXPECT_EQ(stack_behind(each).find(secret), std::string::npos) << each.name;
    }
    take_errors();
    (void)take_system_log();
}

} // namespace
