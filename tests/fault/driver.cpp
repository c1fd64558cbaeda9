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
#include <sys/mman.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace fault {

namespace {

const std::string indent = "    ";

std::vector<std::string> split(const std::string &text, const std::string &mark)
{
    std::vector<std::string> parts;
    for (std::size_t at = 0, end = 0; end != std::string::npos; at = end + mark.size()) {
        end = text.find(mark, at);
        parts.push_back(text.substr(at, end - at));
    }
    return parts;
}

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
            text += indent + kinds + ':' + list + '\n';
        }
    }
    return text;
}

std::set<result> read(const std::string &path)
{
    std::set<result> all;
    std::string outcome;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with(indent)) {
            outcome = line.empty() ? "" : outcome + line + '\n';
            continue;
        }
        const std::vector<std::string> sides = split(line.substr(indent.size()), ": ");
        for (const std::string &kind : split(sides[0], ", ")) {
            for (const std::string &call : split(sides[1], " ")) {
                const std::vector<std::string> parts = split(call + "#0", "#");
                for (const std::string &range : split(parts[1], ",")) {
                    const std::size_t last = std::stoul(range.substr(range.find('-') + 1));
                    for (std::size_t i = std::stoul(range); i <= last; ++i) {
                        all.insert({kind, parts[0], i, outcome});
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
    std::set<result> expected = read(path);
    std::erase_if(expected, [](const result &each) {
        return wanted.quick && (each.kind == "ever" || each.kind.starts_with("libxml2"));
    });
    const std::set<result> found(results.begin(), results.end());
    std::vector<result> failures;
    std::set_symmetric_difference(found.begin(), found.end(), expected.begin(), expected.end(),
                                  std::back_inserter(failures));
    for (const result &each : failures) {
        std::printf("  %s: %s: %s#%zu\n%s", found.contains(each) ? "found" : "expected",
                    each.kind.c_str(), each.name.c_str(), each.number, each.outcome.c_str());
    }
    std::printf("%-32s %5zu points  %zu failures\n", played.name, results.size() - 1,
                failures.size());
    std::fflush(stdout);
    ++all->stories;
    all->points += results.size() - 1;
    all->failures += failures.size();
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
