// Looks for secrets in the memory of a plugin that has handled them.
//
// A process of its own plays the plugin, so that its heap, stacks and mappings can be searched from
// outside. A secret is made after that process has begun, and reaches it on one road only: in a
// message of the daemon, or through a pipe when the plugin itself hands it to the library. What the
// plugin holds itself it wipes.
#include "demo_plugin.h"

#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/xml.h"
#include "support/bounded.h"
#include "support/log.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <poll.h>
#include <random>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace test;

constexpr std::size_t token_size = 16;
using token = std::array<char, token_size + 1>;

token held; // what the plugin has been given for the present road

// Content for a node: short texts, a long one with line ends and characters of several bytes, and
// one with entities.
std::string content_with(const std::string &secret)
{
    std::string text = "<short>" + secret + "</short><long>";
    for (int i = 0; i < 400; ++i) {
        text += secret + (i % 7 == 0 ? "\n" : "\xc3\xa9");
    }
    return text + "</long><mixed>" + secret + "<i/>" + secret + "&amp;" + secret + "</mixed>";
}

// ---- the plugin --------------------------------------------------------------------------------

xmlNode *node_with_secret()
{
    char text[20 * token_size + 1] = "";
    for (std::size_t at = 0; at + token_size < sizeof text; at += token_size) {
        std::copy_n(held.data(), token_size, text + at);
    }
    xmlNode *node = xmlNewNode(nullptr, reinterpret_cast<const xmlChar *>("node"));
    xmlNode *inner =
        xmlNewChild(node, nullptr, reinterpret_cast<const xmlChar *>("inner"), nullptr);
    for (int i = 0; i < 50; ++i) {
        xmlNewTextChild(inner, nullptr, reinterpret_cast<const xmlChar *>("leaf"),
                        reinterpret_cast<const xmlChar *>(text));
    }
    support::wipe(text, sizeof text);
    support::wipe_stack(); // of what libxml2 left there for the plugin itself
    return node;
}

void handle_one()
{
    pollfd readable{get_plugin_context()->sock, POLLIN, 0};
    (void)poll(&readable, 1, 60000);
    econf_plugin_run();
}

template <typename read_call>
void read_and_wipe(read_call call)
{
    xmlNode *list = nullptr;
    (void)call(0, "/demo:a", &list);
    wipe_and_free_list(list);
}

template <typename send_call>
void hand_over(send_call call)
{
    xmlNode *node = node_with_secret();
    (void)call(node);
    wipe_and_free(node);
}

int on_config(int, int, int, int, const char *)
{
    return 0;
}

int on_status(int, const char *, const char *, xmlNode **status)
{
    *status = held[0] == '\0' ? nullptr : node_with_secret();
    return 0;
}

int on_operate(int, xmlNode *input, xmlNode **output)
{
    *output = held[0] == '\0' ? xmlDocCopyNodeList(nullptr, input) : node_with_secret();
    return 0;
}

int on_refused(int, int, int, int, const char *)
{
    econf_plugin_error(7, held.data());
    return 7;
}

// ---- the roads ---------------------------------------------------------------------------------

struct road {
    const char *name;
    bool plugin_has_it;
    void (*plugin)();
    std::function<void(Peer &, const std::string &secret)> daemon;
};

std::function<void(Peer &, const std::string &)>
sends(std::function<std::string(const std::string &)> message)
{
    return [=](Peer &peer, const std::string &secret) {
        peer.send(framed(message(secret)));
        (void)peer.receive();
    };
}

std::function<void(Peer &, const std::string &)>
answers(std::function<std::string(const std::string &)> content)
{
    return [=](Peer &peer, const std::string &secret) { (void)peer.answer(content(secret)); };
}

std::string nothing(const std::string &)
{
    return "<result/>";
}

std::string data(const std::string &secret)
{
    return "<result><data>" + content_with(secret) + "</data></result>";
}

const road roads[] = {
    {"change", false, handle_one,
     sends([](const std::string &secret) { return config("/demo:a[k=\"" + secret + "\"]"); })},
    {"refusal", true, handle_one, sends([](const std::string &) {
         return publish("config", "<oper-type>1</oper-type><path>/demo:b</path>",
                        "<callback>2</callback>");
     })},
    {"status request", false, handle_one, sends([](const std::string &secret) {
         return subscribe("<path>/demo:s</path><filter>" + secret + "</filter>", "3");
     })},
    {"status", true, handle_one,
     sends([](const std::string &) { return subscribe("<path>/demo:s</path>", "3"); })},
    {"operation echoed", false, handle_one,
     sends([](const std::string &secret) { return operate(content_with(secret), "4"); })},
    {"output", true, handle_one, sends([](const std::string &) { return operate("<a/>", "4"); })},
    {"pull", false, [] { read_and_wipe(econf_plugin_pull); }, answers(data)},
    {"locate", false, [] { read_and_wipe(econf_plugin_locate); },
     answers([](const std::string &secret) {
         return "<result><prev>/a[k=\"" + secret + "\"]</prev></result>";
     })},
    {"pull refused", false, [] { read_and_wipe(econf_plugin_pull); },
     answers([](const std::string &secret) { return error("1", secret); })},
    {"push", true,
     [] { hand_over([](xmlNode *node) { return econf_plugin_push("/demo:a", node); }); },
     answers(nothing)},
    {"push refused", false,
     [] {
         xmlNode *node = new_element("a");
         (void)econf_plugin_push("/demo:a", node);
         xmlFreeNode(node);
     },
     answers([](const std::string &secret) { return error("1", secret + secret); })},
    {"deployment", true,
     [] {
         hand_over(
             [](xmlNode *node) { return econf_plugin_config_deployment("/demo:a", 0, node); });
     },
     answers(nothing)},
    {"notification", true,
     [] {
         hand_over([](xmlNode *node) {
             char name[] = "demo";
             return econf_notify(name, node);
         });
     },
     [](Peer &, const std::string &) {}},
    {"dropped message", false, [] { read_and_wipe(econf_plugin_pull); },
     [](Peer &peer, const std::string &secret) {
         peer.send(framed(rpc("publish", "<params>" + content_with(secret) + "</params>", "8")));
         (void)peer.answer("<result/>");
     }},
    {"malformed message and junk", false, handle_one,
     [](Peer &peer, const std::string &secret) {
         peer.send(framed("<rpc>" + content_with(secret)) + secret + secret + framed(kick_off));
         (void)peer.receive();
     }},
    {"debug file", true, [] { _conf_write_log(DBG_ERROR, "%s", held.data()); },
     [](Peer &, const std::string &) {}},
    {"system log", true,
     [] {
         safety_syslog(LOG_INFO, "%40000s<password>%s</password>%c%s", "", held.data(), 0,
                       held.data());
     },
     [](Peer &, const std::string &) {}},
};

[[noreturn]] void play_plugin(int tokens, int done)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    econf_config_cb_info_t configs[] = {
        {"/demo:a", 1, on_config}, {"/demo:b", 1, on_refused}, {nullptr, 0, nullptr}};
    econf_status_cb_info_t statuses[] = {{"/demo:s", on_status}, {nullptr, nullptr}};
    char name[] = "echo";
    econf_operate_cb_info_t operations[] = {{name, on_operate}, {nullptr, nullptr}};
    econf_plugin_subpub_info_t callbacks{configs, statuses, operations, nullptr};
    bool all_well = econf_plugin_init("demo", &callbacks) >= 0 &&
                    econf_plugin_activate(ACTIVATE_WITH_NONE) == 0;
    for (const road &each : roads) { // each begins when the secret, or a blank, has come
        all_well = all_well && read(tokens, held.data(), token_size) == token_size;
        each.plugin();
        held.fill('\0');
        (void)write(done, all_well ? "y" : "n", 1);
    }
    for (;;) {
        pause();
    }
}

// ---- the search --------------------------------------------------------------------------------

struct mapping {
    unsigned long begin;
    unsigned long end;
    std::string name;
};

std::vector<mapping> readable_mappings(pid_t process)
{
    constexpr unsigned long most = 1UL << 30;
    std::ifstream maps("/proc/" + std::to_string(process) + "/maps");
    std::vector<mapping> found;
    for (std::string line; std::getline(maps, line);) {
        std::istringstream fields(line);
        std::string range, rights, skipped, name;
        fields >> range >> rights >> skipped >> skipped >> skipped >> name;
        const std::size_t dash = range.find('-');
        const mapping here{std::stoul(range.substr(0, dash), nullptr, 16),
                           std::stoul(range.substr(dash + 1), nullptr, 16), name};
        const bool is_ours = rights[0] == 'r' && name != "[vvar]" && name != "[vsyscall]" &&
                             here.end - here.begin < most; // not what a sanitizer reserves
        if (is_ours) {
            found.push_back(here);
        }
    }
    return found;
}

// How often a secret stands in the memory of a process, by place.
std::map<std::string, int> search(pid_t process, const std::string &secret)
{
    std::map<std::string, int> found;
    const int memory = open(("/proc/" + std::to_string(process) + "/mem").c_str(), O_RDONLY);
    EXPECT_GE(memory, 0);
    for (const mapping &each : readable_mappings(process)) {
        std::string bytes(each.end - each.begin, '\0');
        const ssize_t count =
            pread(memory, bytes.data(), bytes.size(), static_cast<off_t>(each.begin));
        bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        for (std::size_t at = bytes.find(secret); at != std::string::npos;
             at = bytes.find(secret, at + 1)) {
            ++found[each.name.empty() ? "a mapping" : each.name];
        }
    }
    close(memory);
    return found;
}

std::string random_token()
{
    static std::random_device source;
    std::string made(token_size, '\0');
    std::generate(made.begin(), made.end(),
                  [] { return "abcdefghijklmnopqrstuvwxyz0123456789"[source() % 36]; });
    return made;
}

using SecretsTest = PluginFixture;

TEST_F(SecretsTest, LeaveNoTraceInMemory)
{
    int tokens[2];
    int done[2];
    ASSERT_EQ(pipe(tokens) | pipe(done), 0);
    const pid_t plugin = fork();
    if (plugin == 0) {
        play_plugin(tokens[0], done[1]);
    }
    daemon->play([&](Peer &connection) {
        (void)connection.answer("<result/>");
        (void)connection.answer("<result/>");
        for (const road &each : roads) {
            const std::string secret = random_token();
            const std::string given = each.plugin_has_it ? secret : std::string(token_size, '\0');
            EXPECT_EQ(write(tokens[1], given.data(), token_size), token_size);
            each.daemon(connection, secret);
            char answer = 'n';
            EXPECT_EQ(read(done[0], &answer, 1), 1);
            EXPECT_EQ(answer, 'y');
            for (const std::string &message : take_system_log()) {
                EXPECT_EQ(message.find(secret), std::string::npos) << each.name << ": " << message;
            }
            for (const auto &[place, count] : search(plugin, secret)) {
                ADD_FAILURE() << each.name << ": " << count << " times in " << place;
            }
        }
    });
    daemon->finish();
    kill(plugin, SIGKILL);
    EXPECT_EQ(waitpid(plugin, nullptr, 0), plugin);
    for (const int fd : {tokens[0], tokens[1], done[0], done[1]}) {
        close(fd);
    }
    daemon->forget_connection();
}

} // namespace
