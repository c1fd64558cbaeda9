// The fault lane: runs each story once without a fault, then once for each fault that each call of
// the library can have in it, every time in a process of its own, under AddressSanitizer with leak
// checking. Compares the outcomes with tests/fault/expected/STORY.txt. usage: fault_lane --help
//
// Kinds of faults: once; ever (the call and all that follow, of every kind); cut (fewer bytes
// move; in the full form at every length); EINTR; EAGAIN; timeout (of a wait, at once); broken and
// stuck (the call and all that follow of its name fail, or give EAGAIN); libxml2 once and ever
// (allocations inside libxml2).
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
#include <set>
#include <sstream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace fault {

namespace {

const std::string indent = "    ";

using ordered = std::vector<std::pair<std::string, std::string>>;

std::string &entry(ordered &list, const std::string &key)
{
    const auto known =
        std::find_if(list.begin(), list.end(), [&](const auto &each) { return each.first == key; });
    return known == list.end() ? list.emplace_back(key, "").second : known->second;
}

std::vector<std::string> split(const std::string &text, const std::string &mark)
{
    std::vector<std::string> parts;
    for (std::size_t at = 0, end = 0; end != std::string::npos; at = end + mark.size()) {
        end = text.find(mark, at);
        parts.push_back(text.substr(at, end - at));
    }
    return parts;
}

// Adds a number to a list like "1,3-5".
void add_number(std::string &list, const std::string &number)
{
    const std::size_t begin = list.find_last_of(",-") + 1;
    if (list.substr(begin) == number) {
        return; // cut to another length
    }
    const bool follows = !list.empty() && std::stoul(list.substr(begin)) + 1 == std::stoul(number);
    if (follows && begin > 0 && list[begin - 1] == '-') {
        list.resize(begin - 1);
    }
    list += (follows ? "-" : list.empty() ? "" : ",") + number;
}

std::string report(const std::vector<result> &results)
{
    std::vector<std::string> outcomes;
    std::map<std::string, std::map<std::string, ordered>> kinds_of; // with their calls, by outcome
    for (const result &each : results) {
        if (!kinds_of.contains(each.outcome)) {
            outcomes.push_back(each.outcome);
        }
        const std::vector<std::string> parts = split(each.call, "#");
        std::string &numbers = entry(kinds_of[each.outcome][each.kind], parts[0]);
        if (parts.size() > 1) {
            add_number(numbers, parts[1]);
        }
    }
    std::string text;
    for (const std::string &outcome : outcomes) {
        std::map<std::string, std::string> lines; // by list of calls
        for (const auto &[kind, calls] : kinds_of[outcome]) {
            std::string list;
            for (const auto &[name, numbers] : calls) {
                list += ' ' + name + (numbers.empty() ? "" : '#' + numbers);
            }
            lines[list] = kind + (lines[list].empty() ? "" : ", " + lines[list]);
        }
        text += (text.empty() ? "" : "\n") + outcome;
        for (const auto &[list, kinds] : lines) {
            text += indent + kinds + ':' + list + '\n';
        }
    }
    return text;
}

// What is said of each fault, as texts that can be compared.
std::string statement(const result &each)
{
    return each.kind + ": " + each.call + '\n' + each.outcome;
}

std::set<std::string> statements(const std::string &report)
{
    std::set<std::string> all;
    std::string outcome;
    for (const std::string &line : split(report, "\n")) {
        if (!line.starts_with(indent)) {
            outcome = line.empty() ? "" : outcome + line + '\n';
            continue;
        }
        const std::vector<std::string> sides = split(line.substr(indent.size()), ": ");
        for (const std::string &kind : split(sides[0], ", ")) {
            for (const std::string &call : split(sides[1], " ")) {
                const std::vector<std::string> parts = split(call + "#", "#");
                for (const std::string &range : split(parts[1], ",")) {
                    const std::vector<std::string> ends = split(range, "-");
                    for (auto i = std::strtoul(ends[0].c_str(), nullptr, 10),
                              last = std::strtoul(ends.back().c_str(), nullptr, 10);
                         i <= last; ++i) {
                        const std::string number = i == 0 ? "" : '#' + std::to_string(i);
                        all.insert(statement({kind, parts[0] + number, outcome}));
                    }
                }
            }
        }
    }
    return all;
}

struct {
    bool quick = false, accept = false;
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

// Compares what was played with what is expected, or writes it down.
void check(const story &played)
{
    const std::string path = wanted.directory + '/' + played.name + ".txt";
    const std::vector<result> results = play_all(played, wanted.quick);
    const auto is_damaged = [](const result &each) {
        return each.outcome.find(damage_mark) != std::string::npos;
    };
    if (wanted.accept && std::none_of(results.begin(), results.end(), is_damaged)) {
        std::ofstream(path) << report(results);
    }
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    const std::set<std::string> expected = statements(text.str());
    std::set<std::string> found;
    std::size_t failures = 0;
    const auto complain = [&](const char *what, const std::string &said) {
        std::printf("  %s: %s", what, said.c_str());
        ++failures;
    };
    for (const result &each : results) {
        const std::string said = statement(each);
        if (found.insert(said).second && (is_damaged(each) || !expected.contains(said))) {
            complain("found", said);
        }
        all->inside_libxml2 += each.call == "allocation" ? 1 : 0;
    }
    for (const std::string &said : expected) {
        const bool is_long = said.starts_with("ever") || said.starts_with("libxml2");
        if (!(wanted.quick && is_long) && !found.contains(said)) {
            complain("expected", said);
        }
    }
    std::printf("%-32s %5zu points  %zu failures\n", played.name, results.size() - 1, failures);
    std::fflush(stdout);
    ++all->stories;
    all->points += results.size() - 1;
    all->failures += failures;
}

// One story in each of several processes at a time; returns whether all came to their end.
bool check_all()
{
    const auto &names = wanted.names;
    bool complete = true;
    std::size_t running = 0;
    for (const story *each = story::all; each != nullptr || running > 0;) {
        if (each == nullptr || running == wanted.jobs) {
            int status = 0;
            complete = wait(&status) > 0 && status == 0 && complete;
            --running;
            continue;
        }
        const story &played = *std::exchange(each, each->next);
        if (names.empty() || std::find(names.begin(), names.end(), played.name) != names.end()) {
            ++running;
            if (fork() == 0) {
                enter_sandbox();
                stage = shared<performance>();
                check(played);
                _exit(0);
            }
        }
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
    auto *quick = options.add_flag("--quick", wanted.quick,
                                   "without faults that last for ever and those inside libxml2");
    options.add_flag("--accept", wanted.accept, "write down the outcomes as the expected ones")
        ->excludes(quick);
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
