// The fault lane: runs each scenario once without a fault, then once for each fault that each call
// of the library can have in it, every time in a process of its own, under AddressSanitizer with
// leak checking. Compares the outcomes with tests/fault/expected/SCENARIO.txt.
//
// usage: fault_lane [--quick | --accept] [--jobs N] EXPECTED_DIR [SCENARIO...]
//   --quick    leaves out the faults that last for ever and those inside libxml2
//   --accept   writes the outcomes as the expected ones, to be read before they are kept
//
// Kinds of faults: once; ever (the call and all that follow, of every kind); cut (fewer bytes
// move); EINTR; EAGAIN; timeout (of a wait, at once); broken and stuck (the call and all that
// follow of its name fail, or give EAGAIN); libxml2 once and ever (allocations inside libxml2).
//
// An expected file has one paragraph for each distinct outcome: the steps of the story that differ
// from the story without a fault, with what was logged in braces; then the faults that lead to it,
// as KINDS: NAME#NUMBER, where NUMBER counts the calls of that name within the story. After the
// story with the fault the process plays it again without one; what differs then follows "again:".
// A crash, a leak, a descriptor left open or a wait without end is never expected.
#include "play.h"
#include "report.h"
#include "sandbox.h"
#include "system_log.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <new>
#include <sstream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace fault {

namespace {

bool enter_sandbox()
{
    std::string error;
    if (!sandbox::enter({}, error)) {
        std::fprintf(stderr, "no sandbox: %s\n", error.c_str());
        return false;
    }
    if (!test::open_system_log()) {
        std::perror("/dev/log");
        return false;
    }
    openlog("fault", LOG_NDELAY, LOG_USER);
    return true;
}

struct options {
    bool quick = false;
    bool accept = false;
    std::size_t jobs = 1;
    std::string expected;
    std::vector<std::string> names; // of scenarios; none for all
};

bool read_options(int count, char **arguments, options &wanted)
{
    for (int index = 1; index < count; ++index) {
        const std::string argument = arguments[index];
        if (argument == "--quick") {
            wanted.quick = true;
        } else if (argument == "--accept") {
            wanted.accept = true;
        } else if (argument == "--jobs" && index + 1 < count) {
            wanted.jobs = std::stoul(arguments[++index]);
        } else if (wanted.expected.empty()) {
            wanted.expected = argument;
        } else {
            wanted.names.push_back(argument);
        }
    }
    return !wanted.expected.empty() && wanted.jobs > 0 && !(wanted.quick && wanted.accept);
}

// What all processes count, in memory that they share.
struct score {
    std::atomic<std::size_t> scenarios = 0;
    std::atomic<std::size_t> failures = 0;
    std::atomic<std::size_t> points = 0;
    std::array<std::atomic<std::size_t>, 9> of_kind{};
    std::atomic<std::size_t> inside_libxml2 = 0;
};

std::vector<result> play_all(const scenario &scenario, bool quick, score &all)
{
    const baseline normal = play_without_fault(scenario);
    std::vector<result> results = {{"none", "story", joined(normal.outcome)}};
    for (const named_point &each : points_of(scenario, normal, quick)) {
        results.push_back({each.kind, each.call, play(scenario, each.where, normal)});
        ++all.points;
        ++(each.where.family == family::memory
               ? all.inside_libxml2
               : all.of_kind[static_cast<std::size_t>(each.where.kind)]);
    }
    return results;
}

// Prints what was found but not expected, and the other way round; returns how many there are.
std::size_t compare(const std::set<std::string> &found, const std::set<std::string> &expected,
                    bool quick)
{
    std::size_t count = 0;
    for (const std::string &each : found) {
        if (!expected.contains(each)) {
            ++count;
            std::printf("  found:    %s\n", each.c_str());
        }
    }
    for (const std::string &each : expected) {
        const bool not_played = quick && (each.starts_with("ever") || each.starts_with("libxml2"));
        if (!not_played && !found.contains(each)) {
            ++count;
            std::printf("  expected: %s\n", each.c_str());
        }
    }
    return count;
}

int check(const scenario &scenario, const options &wanted, score &all)
{
    if (!enter_sandbox()) {
        return 1;
    }
    const std::vector<result> results = play_all(scenario, wanted.quick, all);
    std::size_t failures = 0;
    for (const result &each : results) {
        if (each.outcome.find(damage_mark) != std::string::npos) {
            ++failures;
            std::printf("  %s: %s\n%s\n", each.kind.c_str(), each.call.c_str(),
                        each.outcome.c_str());
        }
    }
    const std::string path = wanted.expected + '/' + scenario.name + ".txt";
    if (wanted.accept && failures == 0) {
        std::ofstream(path) << report(results);
    } else {
        std::ostringstream expected;
        expected << std::ifstream(path).rdbuf();
        failures += compare(statements(results), statements(expected.str()), wanted.quick);
    }
    std::printf("%-32s %5zu points  %zu failures\n", scenario.name, results.size() - 1, failures);
    std::fflush(stdout);
    all.failures += failures;
    ++all.scenarios;
    return 0;
}

// One scenario in each of several processes at a time.
bool check_all(const options &wanted, score &all)
{
    std::size_t running = 0;
    bool complete = true;
    const auto wait_for_one = [&] {
        int status = 0;
        wait(&status);
        complete = complete && status == 0;
        --running;
    };
    for (const scenario &each : scenarios) {
        const auto &names = wanted.names;
        if (!names.empty() && std::find(names.begin(), names.end(), each.name) == names.end()) {
            continue;
        }
        if (running == wanted.jobs) {
            wait_for_one();
        }
        ++running;
        if (fork() == 0) {
            _exit(check(each, wanted, all));
        }
    }
    while (running > 0) {
        wait_for_one();
    }
    return complete && all.scenarios > 0 && all.failures == 0;
}

void print(const score &all)
{
    std::printf("%zu scenarios, %zu points, %zu failures\npoints by kind:", all.scenarios.load(),
                all.points.load(), all.failures.load());
    for (std::size_t kind = 1; kind < all.of_kind.size(); ++kind) {
        std::printf(" %s %zu,", kind_names[kind], all.of_kind[kind].load());
    }
    std::printf(" allocations inside libxml2 %zu\n", all.inside_libxml2.load());
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
    fault::options wanted;
    if (!fault::read_options(count, arguments, wanted)) {
        std::fprintf(stderr,
                     "usage: %s [--quick | --accept] [--jobs N] EXPECTED_DIR [SCENARIO...]\n",
                     arguments[0]);
        return 2;
    }
    fault::watch_libxml2();
    void *shared = mmap(nullptr, sizeof(fault::score), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        std::perror("mmap");
        return 1;
    }
    auto &all = *new (shared) fault::score;
    const bool passed = fault::check_all(wanted, all);
    fault::print(all);
    return passed ? 0 : 1;
}
