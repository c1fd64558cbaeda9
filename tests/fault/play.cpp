// Plays a story once for each fault, each time in a process of its own, and gives stories what they
// are written in; see lane.h. Relies on AddressSanitizer for the size of the heap and for leaks,
// and on the sandbox: logs, profile and sockets are the process's own.
#include "lane.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <numeric>
#include <regex>
#include <sanitizer/allocator_interface.h>
#include <sanitizer/lsan_interface.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

// Of the coverage runtime, in the builds that have it.
extern "C" [[gnu::weak]] void __gcov_dump();

namespace fault {

namespace {

constexpr unsigned guard = 20; // seconds after which a point that hangs is killed
// What is logged where libxml2 itself forgets memory: namespaces and names of a copy that it cannot
// finish. Nobody can free them; no other outcome may leak.
constexpr const char *known_leak = "copy child list failed";

const std::string same = "no difference\n";

bool has_daemon(about subject)
{
    return subject == about::plugin || subject == about::supervisor;
}

// ---- one performance ----------------------------------------------------------------------------

std::string so_far; // of the outcome
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
    const std::vector<std::string> messages = test::take_system_texts();
    lines.insert(lines.end(), messages.begin(), messages.end());
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

// Plays a story, cleans up behind it and returns its outcome, a line for each step and note.
std::string outcome_of(const story &played)
{
    clean_up();
    logs_count = played.subject == about::logs;
    so_far.clear();
    econf_plugin_config_debug(DBG_ALL, 1);
    forget_logs();
    sockets.reset(has_daemon(played.subject) ? new test::FakeDaemon : nullptr);
    played.steps();
    sockets.reset();
    clean_up();
    return std::exchange(so_far, {});
}

// ---- with one fault after the other -------------------------------------------------------------

void keep(const std::string &text, std::array<char, 1 << 16> &kept)
{
    kept[text.copy(kept.data(), kept.size() - 1)] = '\0';
}

// In the child: the story with the fault, and the same again without one.
void perform(const story &played, const point &where, std::size_t usual_growth)
{
    alarm(guard);
    const int descriptors = test::open_descriptors();
    const std::size_t before = __sanitizer_get_current_allocated_bytes();
    armed = where;
    keep(outcome_of(played), stage->first);
    const std::size_t counted[] = {stage->counted[0], stage->counted[1]};
    armed = {};
    keep(outcome_of(played), stage->again);
    stage->growth = __sanitizer_get_current_allocated_bytes() - before;
    std::copy(counted, counted + 2, stage->counted);

    std::string damage = test::open_descriptors() == descriptors ? "" : " descriptors";
    damage += hangs ? " endless wait" : "";
    const auto &checks = ::testing::UnitTest::GetInstance()->ad_hoc_test_result();
    damage += checks.Failed() ? " broken stream" : "";
    // The search for leaks takes as long as all the rest: only where the heap is not as usual.
    const bool may_leak =
        where.is_inside_libxml2 && std::strstr(stage->first.data(), known_leak) != nullptr;
    const bool leaks =
        stage->growth != usual_growth && !may_leak && __lsan_do_recoverable_leak_check() != 0;
    keep(damage + (leaks ? " leak" : ""), stage->damage);
}

// Leaves what was seen on the stage.
void play(const story &played, const point &where, std::size_t usual_growth)
{
    stage->counted[0] = stage->counted[1] = 0;
    keep(" crash", stage->damage);
    std::fflush(nullptr);
    if (const pid_t child = fork(); child != 0) {
        waitpid(child, nullptr, 0);
        return;
    }
    perform(played, where, usual_growth);
    if (__gcov_dump != nullptr) {
        __gcov_dump();
    }
    _exit(0);
}

std::vector<std::string> lines_of(const std::array<char, 1 << 16> &text)
{
    std::istringstream input(text.data());
    std::vector<std::string> lines;
    for (std::string line; std::getline(input, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The lines that differ. A story that a failure shortens goes on at a later line of the normal one.
std::string difference(const std::vector<std::string> &normal,
                       const std::vector<std::string> &outcome)
{
    std::string text;
    auto next = normal.begin();
    for (const std::string &line : outcome) {
        const bool is_short = outcome.size() != normal.size();
        const auto found = std::find(next, is_short ? normal.end() : next + 1, line);
        const bool differs = is_short ? found == normal.end() : *next != line;
        text += differs ? line + '\n' : "";
        next = !is_short ? next + 1 : differs ? next : found + 1;
    }
    return text.empty() ? same : text;
}

// The lengths to which a transfer is cut.
std::vector<std::size_t> parts(std::size_t size, bool every)
{
    if (size < 2) {
        return {};
    }
    if (!every) {
        return {1, size / 2, size - 1};
    }
    std::vector<std::size_t> all(size - 1);
    std::iota(all.begin(), all.end(), 1);
    return all;
}

std::string damage()
{
    return stage->damage[0] == '\0' ? "" : damage_mark + stage->damage.data() + '\n';
}

} // namespace

void forget_logs()
{
    (void)logged();
}

void add_line(const std::string &name, const std::string &result, bool with_logs)
{
    so_far += name + "=" + settled(result) + (with_logs ? logged() : "") + '\n';
}

xmlNode *made_outside(const char *text)
{
    const outside callback;
    return test::parse(text);
}

void ask(const std::string &request)
{
    sockets->connection().send(test::framed(request));
}

void take_turn()
{
    // The daemon's calls do not count, though the linker may give it the library's inline
    // functions.
    const outside daemon;
    test::Peer *const peer = sockets ? sockets->present_connection() : nullptr;
    if (peer == nullptr) {
        return;
    }
    for (const std::string &body : peer->received()) {
        if (body.starts_with("<rpc>")) {
            const std::size_t id = body.rfind("<id>") + 4;
            const std::string answered = body.substr(id, body.find('<', id) - id);
            peer->send(test::framed(test::reply(content_for(body), answered)));
        } else {
            replies += body;
        }
    }
    if (waits_left > 0 && --waits_left == 0) {
        peer->close();
    }
}

void hang_up()
{
    sockets->forget_connection();
}

std::string take_replies()
{
    take_turn();
    return std::exchange(replies, {});
}

std::vector<result> play_all(const story &played)
{
    play(played, {}, 0);
    const std::vector<std::string> normal = lines_of(stage->first);
    const std::vector<call> calls(stage->calls.data(), stage->calls.data() + stage->counted[0]);
    const bool has_documents = played.subject == about::documents || has_daemon(played.subject);
    const std::size_t allocations = has_documents ? stage->counted[1] : 0;
    const std::size_t growth = stage->growth;
    // A cut line of a log is another text at each length.
    const bool every_length = played.subject != about::logs && played.subject != about::supervisor;
    std::vector<result> results = {{"none", "story", 0, stage->first.data() + damage()}};
    const auto add = [&](const char *kind, const char *name, std::size_t number,
                         const point &where) {
        play(played, where, growth);
        const std::string outcome = difference(normal, lines_of(stage->first));
        const std::string after = difference(normal, lines_of(stage->again));
        const std::string all = outcome + (after == same ? "" : "again: " + after) + damage();
        results.push_back({kind, name, number, all});
    };
    std::map<std::string, std::size_t> numbers;
    for (std::size_t at = 1; at <= calls.size(); ++at) {
        const auto &[name, kinds, size] = calls[at - 1];
        const std::size_t number = ++numbers[name];
        if (number != 1 && std::strcmp(name, "snprintf") == 0) {
            continue; // the key of the process's record, printed in the same way at each look-up
        }
        const std::pair<unsigned, const char *> faults[] = {
            {once, "once"},       {ever, "ever"},     {interrupted, "EINTR"}, {again, "EAGAIN"},
            {timeout, "timeout"}, {broken, "broken"}, {stuck, "stuck"}};
        for (const auto &[kind, title] : faults) {
            if ((kinds & kind) != 0) {
                add(title, name, number, {kind, at});
            }
        }
        for (const std::size_t part : parts((kinds & cut) == 0 ? 0 : size, every_length)) {
            add("cut", name, number, {cut, at, part});
        }
    }
    for (std::size_t number = 1; number <= allocations; ++number) {
        add("libxml2 once", "allocation", 0, {once, number, 0, true});
        add("libxml2 ever", "allocation", 0, {ever, number, 0, true});
    }
    return results;
}

} // namespace fault
