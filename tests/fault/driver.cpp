// The fault lane: runs each story once without a fault, then once for each fault that each call of
// the library can have in it, every time in a process of its own, under AddressSanitizer with leak
// checking. Compares the outcomes with tests/fault/expected/STORY.txt. usage: fault_lane --help
//
// Kinds of faults: once; ever (the call and all that follow, of every kind); cut (fewer bytes move,
// at every length); EINTR; EAGAIN; timeout (of a wait, at once); broken and stuck (the call and all
// that follow of its name fail, or give EAGAIN); libxml2 once and ever (allocations inside
// libxml2).
//
// An expected file has one paragraph for each distinct outcome: the steps of the story that differ
// from the story without a fault, with what was logged in braces; then the faults that lead to it,
// as KINDS: NAME#NUMBER, where NUMBER counts the calls of that name within the story (allocations
// inside libxml2 are as many as its version makes). After the story with the fault the process
// plays it again without one; what differs then follows "again:". A crash, a leak, a descriptor
// left open or a wait without end is never expected.
#include "lane.h"
#include "sandbox.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <sys/mman.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace fault {

namespace {

// Adds a number to the calls of one name, such as "malloc#1,3-5"; 0 is none.
void add_number(std::string &list, std::size_t number)
{
    const std::size_t end = list.find_last_of("#,-");
    const std::size_t last = end == std::string::npos ? 0 : std::stoul(list.substr(end + 1));
    if (number == last) {
        return; // cut to another length
    }
    if (last > 0 && number == last + 1) {
        list.resize(list[end] == '-' ? end : list.size());
        list += '-';
    } else {
        list += last > 0 ? ',' : '#';
    }
    list += std::to_string(number);
}

std::string report(const std::vector<result> &results)
{
    using calls = std::vector<std::pair<std::string, std::string>>; // by name
    std::vector<std::string> outcomes;
    std::map<std::string, std::map<std::string, calls>> kinds_of; // by outcome
    for (const result &each : results) {
        if (!kinds_of.contains(each.outcome)) {
            outcomes.push_back(each.outcome);
        }
        calls &all = kinds_of[each.outcome][each.kind];
        auto known = std::find_if(all.begin(), all.end(),
                                  [&](const auto &call) { return call.first == each.name; });
        known = known == all.end() ? all.insert(known, {each.name, each.name}) : known;
        add_number(known->second, each.number);
    }
    std::string text;
    for (const std::string &outcome : outcomes) {
        std::map<std::string, std::string> lines; // by list of calls
        for (const auto &[kind, all] : kinds_of[outcome]) {
            std::string list;
            for (const auto &call : all) {
                list += ' ' + call.second;
            }
            lines[list] = kind + (lines[list].empty() ? "" : ", " + lines[list]);
        }
        text += (text.empty() ? "" : "\n") + outcome;
        for (const auto &[list, kinds] : lines) {
            text += "    " + kinds + ':' + list + '\n';
        }
    }
    return text;
}

struct {
    bool accept = false;
    std::size_t jobs = 1;
    std::string directory;
    std::vector<std::string> names; // of stories; none for all
} wanted;

// What all processes count.
struct score {
    std::atomic<std::size_t> stories, points, inside_libxml2, failures;
} * all;

template <typename type>
type *shared()
{
    void *memory =
        mmap(nullptr, sizeof(type), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return new (memory) type; // which is zero
}

void enter_sandbox()
{
    std::string error;
    if (!sandbox::enter({}, error) || !test::open_system_log()) {
        std::fprintf(stderr, "no sandbox: %s\n", error.c_str());
        _exit(1);
    }
    openlog("fault", LOG_NDELAY, LOG_USER);
}

// Compares what was played with what is expected, and shows how it differs; or writes it down.
void check(const story &played)
{
    const std::string path = wanted.directory + '/' + played.name + ".txt";
    const std::vector<result> results = play_all(played);
    const std::string found = report(results);
    if (wanted.accept && found.find(damage_mark) == std::string::npos) {
        std::ofstream(path) << found;
    }
    FILE *comparison = popen(("diff -u '" + path + "' -").c_str(), "w");
    std::fputs(found.c_str(), comparison);
    const bool differs = pclose(comparison) != 0;
    std::printf("%-32s %5zu points  %s\n", played.name, results.size() - 1,
                differs ? "FAILED: not as expected" : "as expected");
    std::fflush(stdout);
    ++all->stories;
    all->points += results.size() - 1;
    all->failures += differs ? 1 : 0;
    for (const result &each : results) {
        all->inside_libxml2 += each.kind.starts_with("libxml2") ? 1 : 0;
    }
}

// One story in each of several processes at a time; returns whether all came to their end.
bool check_all()
{
    bool complete = true;
    std::size_t running = 0;
    const auto wait_for_one = [&] {
        int status = 0;
        complete = wait(&status) > 0 && status == 0 && complete;
        --running;
    };
    const auto &names = wanted.names;
    for (const story *each = story::all; each != nullptr; each = each->next) {
        if (!names.empty() && std::find(names.begin(), names.end(), each->name) == names.end()) {
            continue;
        }
        if (++running > wanted.jobs) {
            wait_for_one();
        }
        if (fork() == 0) {
            enter_sandbox();
            stage = shared<performance>();
            check(*each);
            _exit(0);
        }
    }
    while (running > 0) {
        wait_for_one();
    }
    return complete;
}

} // namespace

} // namespace fault

// AddressSanitizer asks this whether a failed allocation ends the program.
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1:quarantine_size_mb=1:malloc_context_size=8";
}

int main(int count, char **arguments)
{
    using fault::all;
    using fault::wanted;
    CLI::App options("Lets each call that the library makes fail in turn");
    options.add_flag("--accept", wanted.accept, "write down the outcomes as the expected ones");
    options.add_option("--jobs", wanted.jobs, "stories at a time")->check(CLI::PositiveNumber);
    options.add_option("DIR", wanted.directory, "of the expected outcomes")->required();
    options.add_option("STORY", wanted.names, "none for all");
    CLI11_PARSE(options, count, arguments);
    fault::watch_libxml2();
    all = fault::shared<fault::score>();
    const bool complete = fault::check_all();
    std::printf("%zu stories, %zu points, %zu of these inside libxml2, %zu failures\n",
                all->stories.load(), all->points.load(), all->inside_libxml2.load(),
                all->failures.load());
    return complete && all->stories > 0 && all->failures == 0 ? 0 : 1;
}
