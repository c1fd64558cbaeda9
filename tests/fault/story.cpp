// What the stories are written in; see lane.h. Relies on the sandbox: logs, profile and sockets are
// the process's own.
#include "lane.h"

#include <cstdlib>
#include <memory>
#include <regex>

namespace fault {

namespace {

std::string outcome;
std::unique_ptr<test::FakeDaemon> sockets;
std::string replies;

// Without what differs from run to run: pointers, event bits and times.
std::string settled(const std::string &text)
{
    static const std::regex number("0x[0-9a-f]+|consumed:-?[0-9.]+|fd[(=][0-9]+|agent-ppid>[0-9]+");
    return std::regex_replace(text, number, "?");
}

// What was logged since the last call: errors of the debug file as they are, other lines with
// their level, and the messages of the system log with their priority.
std::string logged()
{
    const std::string error = "[ERROR] - ";
    std::vector<std::string> lines = std::exchange(waits, {});
    for (const std::string &line : test::debug_lines()) {
        if (!line.starts_with("[INFO]")) {
            lines.push_back(line.starts_with(error) ? line.substr(error.size()) : line);
        }
    }
    test::clear_debug_file();
    for (const std::string &message : test::take_system_texts()) {
        lines.push_back(message);
    }
    std::string text;
    for (const std::string &line : lines) {
        text += (text.empty() ? "" : " | ") + settled(line);
    }
    return text.empty() ? "" : " {" + text + "}";
}

// Leaves the process as it was before its first call of the library.
void clean_up()
{
    if (conf_plugin_data *plugin = get_plugin_from_hash()) {
        std::free(plugin->confd_hooks);
        plugin->confd_hooks = nullptr; // a packed member
        if (plugin->plugin_ctxt != nullptr) {
            econf_plugin_close();
        }
    }
    del_plugin_from_hash();
    conf_hash_destroy(std::exchange(g_plugin_hash, nullptr));
    g_rdb_recovery_status = 0;
    waits_left = 0;
    replies.clear();
    conf_clishm_destroy();
}

const char *content_for(const std::string &request)
{
    return request.find("<method>pull<") != std::string::npos
               ? "<result><data xmlns:n=\"urn:n\"><n:name>a</n:name><name>b</name></data></result>"
           : request.find("<method>locate<") != std::string::npos
               ? "<result><prev>/list[name=\"a\"]</prev><next>/list[name=\"b\"]</next></result>"
               : "<result/>";
}

} // namespace

std::string outcome_of(const story &played)
{
    clean_up();
    logs_count = played.subject == about::logs;
    outcome.clear();
    econf_plugin_config_debug(DBG_ALL, 1);
    forget_logs();
    sockets.reset(played.subject == about::plugin ? new test::FakeDaemon : nullptr);
    played.steps();
    sockets.reset();
    clean_up();
    return std::exchange(outcome, {});
}

void forget_logs()
{
    (void)logged();
}

void add_line(const std::string &name, const std::string &result, bool with_logs)
{
    outcome += name + "=" + settled(result) + (with_logs ? logged() : "") + '\n';
}

xmlNode *made_outside(const char *text)
{
    const bool before = std::exchange(inside, false);
    xmlNode *made = test::parse(text);
    inside = before;
    return made;
}

void ask(const std::string &request)
{
    sockets->connection().send(test::framed(request));
}

void take_turn()
{
    if (!sockets) {
        return;
    }
    for (const std::string &body : sockets->connection().received()) {
        if (body.starts_with("<rpc>")) {
            const std::size_t id = body.rfind("<id>") + 4;
            ask(test::reply(content_for(body), body.substr(id, body.find('<', id) - id)));
        } else {
            replies += body;
        }
    }
    if (waits_left > 0 && --waits_left == 0) {
        sockets->connection().close();
    }
}

std::string take_replies()
{
    take_turn();
    return std::exchange(replies, {});
}

} // namespace fault
