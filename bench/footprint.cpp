// What the library costs a process that it is idle in: memory and the time to start, beside a
// program that loads the same libraries only.
//
//     footprint PLUGIN BASELINE      see footprint_idle.c
//
// Memory is that of private dirty pages, by what they are pages of: the mean of several processes,
// for where a stack begins in its page is left to chance.
#include "daemon.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>
#include <map>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <vector>

namespace {

using pair = std::array<double, 2>; // of the baseline and of the plugin

pid_t start(const char *program, const char *argument)
{
    const std::array<char *, 3> arguments = {const_cast<char *>(program),
                                             const_cast<char *>(argument)};
    pid_t child = 0;
    if (posix_spawn(&child, program, nullptr, nullptr, arguments.data(), environ) != 0) {
        bench::give_up(program);
    }
    return child;
}

// Adds the KiB of each mapping of a process that has stopped itself.
void add_memory(const char *program, std::size_t column, std::map<std::string, pair> &kib)
{
    const pid_t child = start(program, "idle");
    int status = 0;
    if (waitpid(child, &status, WUNTRACED) != child || !WIFSTOPPED(status)) {
        bench::give_up("idle program");
    }
    std::ifstream smaps("/proc/" + std::to_string(child) + "/smaps");
    std::string mapping;
    for (std::string line; std::getline(smaps, line);) {
        std::istringstream words(line);
        std::vector<std::string> fields;
        for (std::string word; words >> word;) {
            fields.push_back(word);
        }
        if (fields[0] == "Private_Dirty:") {
            kib[mapping][column] += std::stod(fields[1]);
        } else if (fields[0].back() != ':') {
            mapping = fields.size() < 6 ? "[anonymous]" : fields[5];
            mapping = mapping == program ? "program" : mapping.substr(mapping.rfind('/') + 1);
        }
    }
    (void)kill(child, SIGKILL);
    (void)waitpid(child, &status, 0);
}

void print_row(const char *name, const pair &kib, int count)
{
    std::printf("  %-22s %9.1f %9.1f %+9.1f\n", name, kib[0] / count, kib[1] / count,
                (kib[1] - kib[0]) / count);
}

void compare_memory(const std::array<const char *, 2> &programs)
{
    constexpr int count = 30;
    const int listener = conf_plugin_service_enable();
    bench::in_background([=] {
        for (int i = 0; i < count; ++i) {
            const int sock = bench::accept_plugin(listener);
            while (bench::answer(sock, "")) {
            }
            (void)close(sock);
        }
    });
    std::map<std::string, pair> kib;
    for (int i = 0; i < count; ++i) {
        add_memory(programs[0], 0, kib);
        add_memory(programs[1], 1, kib);
    }
    std::printf("%-24s %9s %9s %9s\n", "private dirty KiB", "baseline", "plugin", "more");
    pair sum{};
    for (const auto &[mapping, each] : kib) {
        if (each[0] != each[1]) {
            print_row(mapping.c_str(), each, count);
        }
        sum = {sum[0] + each[0], sum[1] + each[1]};
    }
    print_row("all, the others included", sum, count);
}

double lifetime(const char *program)
{
    const auto begin = std::chrono::steady_clock::now();
    (void)waitpid(start(program, nullptr), nullptr, 0);
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin)
        .count();
}

void compare_start(const std::array<const char *, 2> &programs)
{
    std::array<std::vector<double>, 2> times;
    for (int round = 0; round < 501; ++round) {
        times[0].push_back(lifetime(programs[0]));
        times[1].push_back(lifetime(programs[1]));
    }
    for (std::vector<double> &each : times) {
        std::sort(each.begin(), each.end());
    }
    const double before = times[0][250];
    const double after = times[1][250];
    std::printf("%-24s %9.0f %9.0f %8.2fx\n", "start and end, us", before, after, after / before);
}

} // namespace

int main(int count, char **arguments)
{
    if (count != 3) {
        std::fprintf(stderr, "usage: footprint PLUGIN BASELINE\n");
        return 2;
    }
    bench::enter_sandbox();
    const std::array<const char *, 2> programs = {arguments[2], arguments[1]};
    compare_memory(programs);
    compare_start(programs);
    return 0;
}
