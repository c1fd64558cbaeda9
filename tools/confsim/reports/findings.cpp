// See findings.h.
#include "reports/findings.h"

#include "trace/mask.h"

#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <system_error>

namespace confsim {

namespace {

// What a plugin keeps after its first work (buffers, caches, files that it opens once) is no leak:
// only what goes on growing is one. A leak of memory shows in pages, and heaps grow in steps.
constexpr int most_descriptor_rises = 4;
constexpr int most_memory_rises = 8;

// Sanitizers reserve more address space than any plugin has, and keep what is freed.
constexpr long least_of_sanitizers = 1L << 30; // in kB

// Of a process, "12 (2 inside)": the id by which it is known here.
std::filesystem::path place_of(const std::string &process)
{
    return std::filesystem::path("/proc") / process.substr(0, process.find(' '));
}

// 0 when it cannot be read, as of a process of another user.
long descriptors_of(const std::string &process)
{
    std::error_code error;
    std::filesystem::directory_iterator each(place_of(process) / "fd", error);
    long count = 0;
    for (; !error && each != std::filesystem::directory_iterator(); each.increment(error)) {
        ++count;
    }
    return error ? 0 : count;
}

// In kB, without what is mapped from files.
long memory_of(const std::string &process)
{
    std::ifstream status(place_of(process) / "status");
    long resident = 0;
    for (std::string line; std::getline(status, line);) {
        std::istringstream words(line);
        std::string name;
        long value = 0;
        words >> name >> value;
        if (name == "VmSize:" && value > least_of_sanitizers) {
            return 0;
        }
        resident = name == "RssAnon:" ? value : resident;
    }
    return resident;
}

std::string in_words(seconds given)
{
    std::ostringstream text;
    text << std::setprecision(3) << given.count() << " s";
    return text.str();
}

} // namespace

void findings::add(const std::string &plugin, const std::string &what)
{
    const std::string text = "plugin " + plugin + " " + what;
    has_any_ = true;
    out_.event((are_errors_ ? "error: " : "finding: ") + text,
               are_errors_ ? tone::error : tone::finding);
    cases_.note(masked(text));
    if (are_errors_) {
        cases_.fail("", masked(text));
    }
}

void findings::answered(const std::string &plugin, const std::string &request, seconds taken)
{
    if (slow_ && taken > *slow_) {
        add(plugin,
            "is slow: " + request + " took " + in_words(taken) + ", more than " + in_words(*slow_));
    }
}

void findings::grow(growth &known, long now, const plugin &whom, int most, const std::string &what)
{
    const bool rises = known.last > 0 && now > known.last;
    known.last = now;
    if (known.rises < 0) {
        return;
    }
    known.rises = rises ? known.rises + 1 : 0;
    if (known.rises == most) {
        add(whom.called(), "holds more " + what + " after each of " + std::to_string(most) +
                               " cases in a row, now " + std::to_string(now));
        known.rises = -1;
    }
}

void findings::compare(const std::list<plugin_ptr> &plugins)
{
    for (const plugin_ptr &each : plugins) {
        const std::string &process = each->stream.process();
        holdings &held = holdings_[process];
        grow(held.descriptors, descriptors_of(process), *each, most_descriptor_rises,
             "descriptors");
        grow(held.memory, memory_of(process), *each, most_memory_rises, "memory (in kB)");
    }
}

void findings::settle(const std::list<plugin_ptr> &plugins)
{
    for (const plugin_ptr &each : plugins) {
        if (each->owes_answer()) {
            add(each->called(), "has not answered " + each->asked());
        }
    }
}

} // namespace confsim
