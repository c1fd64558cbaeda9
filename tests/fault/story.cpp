// See story.h. Relies on the sandbox: logs, profile and sockets are the process's own.
#include "story.h"

#include "conf_hash.h"
#include "conf_misc.h"
#include "conf_plugin.h"

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <utility>

namespace fault {

namespace {

std::vector<std::string> outcome;

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
    std::vector<std::string> lines = take_waits();
    const std::string error = "[ERROR] - ";
    for (const std::string &line : test::debug_lines()) {
        if (line.starts_with(error)) {
            lines.push_back(line.substr(error.size()));
        } else if (!line.starts_with("[INFO]")) {
            lines.push_back(line);
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
    on_wait = nullptr;
    if (conf_plugin_data *plugin = get_plugin_from_hash()) {
        std::free(plugin->confd_hooks);
        plugin->confd_hooks = nullptr;
        if (plugin->plugin_ctxt != nullptr) {
            econf_plugin_close();
        }
    }
    del_plugin_from_hash();
    conf_hash_destroy(std::exchange(g_plugin_hash, nullptr));
    g_rdb_recovery_status = 0;
    conf_clishm_destroy();
}

std::string id_in(const std::string &request)
{
    const std::size_t begin = request.rfind("<id>") + 4;
    return request.substr(begin, request.find('<', begin) - begin);
}

std::string content_for(const std::string &request)
{
    if (request.find("<method>pull<") != std::string::npos) {
        return "<result><data xmlns:n=\"urn:n\"><n:name>a</n:name><name>b</name></data></result>";
    }
    if (request.find("<method>locate<") != std::string::npos) {
        return "<result><prev>/list[name=\"a\"]</prev><next>/list[name=\"b\"]</next></result>";
    }
    return "<result/>";
}

} // namespace

std::vector<std::string> outcome_of(const scenario &scenario)
{
    clean_up();
    logs_count = scenario.tests_logs;
    outcome.clear();
    econf_plugin_config_debug(DBG_ALL, 1);
    forget_logs();
    scenario.story();
    clean_up();
    return std::exchange(outcome, {});
}

void forget_logs()
{
    (void)logged();
}

void note(const std::string &name, const std::string &text)
{
    outcome.push_back(name + "=" + settled(text));
}

void end_step(const std::string &name, const std::string &result)
{
    leave_library();
    outcome.push_back(name + "=" + result + logged());
}

Daemon::Daemon()
{
    on_wait = [this] { take_turn(); };
}

Daemon::~Daemon()
{
    on_wait = nullptr;
}

void Daemon::take_turn()
{
    for (const std::string &body : fake_.connection().received()) {
        if (body.starts_with("<rpc>")) {
            fake_.connection().send(test::framed(test::reply(content_for(body), id_in(body))));
        } else {
            replies_ += body;
        }
    }
    if (waits_left_ > 0 && --waits_left_ == 0) {
        fake_.connection().close();
    }
}

void Daemon::send(const std::string &request)
{
    fake_.connection().send(test::framed(request));
}

void Daemon::hang_up()
{
    waits_left_ = 2;
}

std::string Daemon::take_replies()
{
    take_turn();
    return std::exchange(replies_, {});
}

} // namespace fault
