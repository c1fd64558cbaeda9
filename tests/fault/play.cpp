// See play.h. Relies on AddressSanitizer for the size of the heap and for leaks.
#include "play.h"

#include "report.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <sanitizer/allocator_interface.h>
#include <sanitizer/lsan_interface.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace fault {

namespace {

constexpr unsigned guard = 20; // seconds after which a point that hangs is killed
// What is logged where libxml2 itself forgets memory: namespaces and names of a copy that it cannot
// finish. Nobody can free them; no other outcome may leak.
constexpr const char *known_leak = "copy child list failed";

constexpr const char *same = "no difference";

// ---- in the process of a point -----------------------------------------------------------------

// The steps that differ. A story that a failure shortens goes on at a later step of the normal one.
std::string difference(const std::vector<std::string> &normal,
                       const std::vector<std::string> &outcome)
{
    std::vector<std::string> steps;
    auto next = normal.begin();
    for (const std::string &step : outcome) {
        const auto end = outcome.size() == normal.size() ? next + 1 : normal.end();
        const auto found = std::find(next, end, step);
        if (found == end) {
            steps.push_back(step);
        } else {
            next = found;
        }
        next += found == end && outcome.size() != normal.size() ? 0 : 1;
    }
    return steps.empty() ? same : joined(steps);
}

// A story with a fault, and the same again without one.
struct played {
    std::string first; // differences from the normal outcome
    std::string again;
    std::size_t growth = 0; // bytes of heap in use afterwards
};

played play_twice(const scenario &scenario, const point &where,
                  const std::vector<std::string> &normal)
{
    alarm(guard);
    played result;
    result.first.reserve(1 << 16); // of equal size for all points
    const std::size_t before = __sanitizer_get_current_allocated_bytes();
    arm(where);
    result.first.append(difference(normal, outcome_of(scenario)));
    arm({});
    const std::vector<std::string> again = outcome_of(scenario);
    result.growth = __sanitizer_get_current_allocated_bytes() - before;
    result.again = difference(normal, again);
    return result;
}

std::string play_here(const scenario &scenario, const point &where, const baseline &normal)
{
    const int descriptors = test::open_descriptors();
    const played result = play_twice(scenario, where, normal.outcome);
    std::string text = result.first;
    if (result.again != same) {
        text += step_end + std::string("again: ") + result.again;
    }
    std::string damage;
    if (test::open_descriptors() != descriptors) {
        damage += " descriptors";
    }
    if (hangs) {
        damage += " endless wait";
    }
    if (::testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed()) {
        damage += " broken stream";
    }
    // The search for leaks takes as long as all the rest: only where the heap is not as usual.
    const bool is_known =
        where.family == family::memory && text.find(known_leak) != std::string::npos;
    if (result.growth != normal.growth && !is_known && __lsan_do_recoverable_leak_check() != 0) {
        damage += " leak";
    }
    return damage.empty() ? text : text + step_end + damage_mark + damage;
}

// ---- in the process that starts it --------------------------------------------------------------

// Runs `body` in a child and returns what it returned, or how the child died. Shows what the child
// printed unless all is well.
template <typename work>
std::string in_child(work body)
{
    constexpr char mark = '\1';
    int ends[2];
    if (pipe(ends) != 0) {
        return damage_mark + std::string(" no pipe");
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        dup2(ends[1], STDERR_FILENO);
        const std::string text = mark + body() + mark;
        (void)!write(ends[1], text.data(), text.size());
        _exit(0);
    }
    close(ends[1]);
    std::string text;
    char part[65536];
    for (ssize_t count; (count = read(ends[0], part, sizeof part)) > 0;) {
        text.append(part, static_cast<std::size_t>(count));
    }
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    std::string result = damage_mark + std::string(" crash");
    const std::size_t begin = text.find(mark);
    if (status == 0 && begin != std::string::npos && text.back() == mark) {
        result = text.substr(begin + 1, text.size() - begin - 2);
    }
    if (result.find(damage_mark) != std::string::npos) {
        std::fputs(text.c_str(), stderr);
    }
    return result;
}

} // namespace

baseline play_without_fault(const scenario &scenario)
{
    const std::string text = in_child([&] {
        arm({});
        std::string result;
        for (const std::string &line : outcome_of(scenario)) {
            result += line + '\n';
        }
        result += '\n' + std::to_string(calls(family::memory).size()) + '\n';
        for (const call &each : calls(family::calls)) {
            result += each.name + ' ' + std::to_string(each.kinds) + ' ' +
                      std::to_string(each.size) + '\n';
        }
        return result;
    });
    baseline normal;
    std::istringstream input(text);
    for (std::string line; std::getline(input, line) && !line.empty();) {
        normal.outcome.push_back(line);
    }
    input >> normal.allocations;
    for (call each; input >> each.name >> each.kinds >> each.size;) {
        normal.calls.push_back(each);
    }
    const std::string growth =
        in_child([&] { return std::to_string(play_twice(scenario, {}, normal.outcome).growth); });
    std::istringstream(growth) >> normal.growth;
    return normal;
}

std::vector<named_point> points_of(const scenario &scenario, const baseline &normal, bool quick)
{
    std::vector<named_point> points;
    std::map<std::string, int> numbers;
    for (std::size_t number = 1; number <= normal.calls.size(); ++number) {
        const call &each = normal.calls[number - 1];
        const std::string name = each.name + '#' + std::to_string(++numbers[each.name]);
        if (each.name == "snprintf" && numbers[each.name] > 1) {
            continue; // the key of the process's record, printed in the same way at each look-up
        }
        const auto add = [&](kind kind, std::size_t size = 0, const char *what = "") {
            if (kind < kind::cut || (each.kinds & bit(kind)) != 0) {
                points.push_back({{family::calls, number, kind, size},
                                  kind_names[static_cast<int>(kind)] + std::string(what),
                                  name});
            }
        };
        add(kind::once);
        if (!quick) {
            add(kind::ever);
        }
        add(kind::interrupted);
        add(kind::again);
        add(kind::timeout);
        add(kind::broken);
        add(kind::stuck);
        if (each.size > 1) {
            add(kind::cut, 1, " to 1");
            add(kind::cut, each.size / 2, " to half");
            add(kind::cut, each.size - 1, " by 1");
        }
    }
    const std::size_t allocations = scenario.has_documents && !quick ? normal.allocations : 0;
    for (std::size_t number = 1; number <= allocations; ++number) {
        const std::string name = "allocation#" + std::to_string(number);
        points.push_back({{family::memory, number, kind::once, 0}, "libxml2 once", name});
        points.push_back({{family::memory, number, kind::ever, 0}, "libxml2 ever", name});
    }
    return points;
}

std::string play(const scenario &scenario, const point &where, const baseline &normal)
{
    return in_child([&] { return play_here(scenario, where, normal); });
}

} // namespace fault
