// See limited.h.
#include "model/limited.h"

#include "failure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <new>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace confsim {

namespace {

constexpr rlim_t most_seconds = 20;
constexpr rlim_t most_memory = rlim_t{512} << 20;
constexpr rlim_t most_stack = rlim_t{4} << 20;

// A sanitizer takes address space without end.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool is_sanitized = true;
#elif defined(__has_feature)
constexpr bool is_sanitized = __has_feature(address_sanitizer);
#else
constexpr bool is_sanitized = false;
#endif

void limit(__rlimit_resource what, rlim_t most)
{
    rlimit now{};
    (void)getrlimit(what, &now);
    now.rlim_cur = std::min(most, now.rlim_max);
    (void)setrlimit(what, &now);
}

// The complaint of the work; empty when there is none.
std::string complaint_of(const std::function<void()> &work)
{
    try {
        work();
        return "";
    } catch (const std::bad_alloc &) {
        return "it needs too much memory";
    } catch (const std::exception &reason) {
        return reason.what();
    }
}

[[noreturn]] void work_in_child(int result, const std::function<void()> &work)
{
    for (const int each : {SIGSEGV, SIGBUS, SIGABRT, SIGXCPU}) {
        (void)std::signal(each, SIG_DFL);
    }
    limit(RLIMIT_CORE, 0);
    limit(RLIMIT_CPU, most_seconds);
    rlimit stack{};
    (void)getrlimit(RLIMIT_STACK, &stack);
    limit(RLIMIT_STACK, std::min(most_stack, stack.rlim_cur / 2)); // so it is enough outside
    if (!is_sanitized) {
        limit(RLIMIT_AS, most_memory);
    }
    const std::string complaint = complaint_of(work);
    (void)!write(result, complaint.c_str(),
                 complaint.size() + 1); // the end says that it came to it
    _exit(0);
}

std::string read_all(int descriptor)
{
    std::string all;
    std::array<char, 4096> bytes{};
    for (;;) {
        const ssize_t count = read(descriptor, bytes.data(), bytes.size());
        if (count > 0) {
            all.append(bytes.data(), static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return all;
        }
    }
}

} // namespace

void try_in_child(const std::function<void()> &work, const std::string &what)
{
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        throw failure(what + ": " + std::strerror(errno));
    }
    const pid_t process = fork();
    if (process == 0) {
        close(ends[0]);
        work_in_child(ends[1], work);
    }
    close(ends[1]);
    const std::string result = process < 0 ? "" : read_all(ends[0]);
    close(ends[0]);
    int status = 0;
    while (process > 0 && waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    if (result.empty()) {
        const bool is_slow = WIFSIGNALED(status) && WTERMSIG(status) == SIGXCPU;
        throw failure(what + (process < 0 ? ": no process can be started"
                              : is_slow   ? " takes too long"
                                          : " is nested too deep, or too big"));
    }
    if (result.size() > 1) {
        throw failure(result.substr(0, result.size() - 1));
    }
}

} // namespace confsim
