// See child.h.
#include "commands/child.h"

#include "descriptor_limit.h"
#include "failure.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace confsim {

namespace {

// How long the program may take to end when the daemon hangs up, and when it is asked to.
constexpr seconds after_hanging_up(1);
constexpr seconds after_asking(2);

// What a program returns that takes the end of the daemon for an error. Sanitizers would report
// leaks with it, too, if they were not told to use another one.
constexpr int tolerated_status = 1;

// What a shell returns for a program that a signal ended, plus the signal.
constexpr int shells_on_signal = 128;

void set_sanitizer_status()
{
    const char *given = std::getenv("ASAN_OPTIONS");
    const std::string options = std::string("exitcode=23:") + (given == nullptr ? "" : given);
    setenv("ASAN_OPTIONS", options.c_str(), 1); // the last one counts
}

// What the new process does; it never returns. When the program cannot be run, the reason goes to
// `report`, which is closed otherwise.
[[noreturn]] void become(const std::vector<std::string> &command,
                         const sandbox::process_space &space, int report)
{
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &each : command) {
        arguments.push_back(const_cast<char *>(each.c_str()));
    }
    arguments.push_back(nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int each : {SIGPIPE, SIGXFSZ}) { // which confsim itself ignores
        (void)std::signal(each, SIG_DFL);
    }
    restore_descriptor_limit();
    set_sanitizer_status();
    const int nothing = open("/dev/null", O_RDONLY);
    dup2(nothing, STDIN_FILENO);
    if (nothing > STDIN_FILENO) {
        close(nothing);
    }
    int error = space.settle();
    if (error == 0) {
        execvp(arguments[0], arguments.data());
        error = errno;
    }
    (void)!write(report, &error, sizeof error);
    _exit(127);
}

} // namespace

child::child(event_loop &loop, const console &out, const sandbox::process_space &space,
             const std::string &name, const std::vector<std::string> &command)
    : loop_(loop), out_(out), name_(name)
{
    std::array<int, 2> report{};
    if (pipe2(report.data(), O_CLOEXEC) != 0) {
        fail(command.front(), errno);
    }
    process_ = space.fork_inside();
    int error = process_ < 0 ? errno : 0;
    if (process_ == 0) {
        setpgid(0, 0);
        become(command, space, report[1]);
    }
    close(report[1]);
    if (process_ > 0 && read(report[0], &error, sizeof error) == 0) {
        handle_ = static_cast<int>(syscall(SYS_pidfd_open, process_, 0));
        error = handle_ < 0 ? errno : 0;
    }
    close(report[0]);
    if (error != 0) {
        fail(command.front(), error);
    }
    loop_.watch(handle_, POLLIN, [this](short) { note_end(); });
}

void child::fail(const std::string &program, int error) const
{
    if (process_ > 0) {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
    throw failure("cannot run " + program + ": " + std::generic_category().message(error));
}

child::~child()
{
    end();
    loop_.forget(handle_);
    close(handle_);
}

void child::send(int signal) const
{
    if (has_ended_ || kill(process_, signal) != 0) {
        throw failure(name_ + " has ended");
    }
}

void child::end()
{
    if (now_ == stage::killed) {
        return;
    }
    now_ = stage::hung_up;
    if (!is_over_after(after_hanging_up)) {
        now_ = stage::asked;
        kill(-process_, SIGTERM);
        if (!is_over_after(after_asking)) {
            out_.event(name_ + " does not end and is killed");
        }
    }
    now_ = stage::killed;
    kill(-process_, SIGKILL); // what is left of the group
    waitpid(process_, nullptr, 0);
}

// A signal cuts the time short.
bool child::is_over_after(seconds delay)
{
    loop_.resume();
    return loop_.run_until([this] { return has_ended_; }, after(delay));
}

// The process itself is kept until end(), so that its id stays its own.
void child::note_end()
{
    siginfo_t end{};
    if (waitid(P_PID, static_cast<id_t>(process_), &end, WEXITED | WNOWAIT) != 0) {
        return;
    }
    loop_.forget(handle_);
    has_ended_ = true;
    by_signal_ = end.si_code != CLD_EXITED;
    status_ = end.si_status;
    const std::string words =
        name_ + (by_signal_ ? std::string(" was ended by a signal: ") + strsignal(status_)
                            : " ended with exit status " + std::to_string(status_));
    complaint_ = is_in_order() ? "" : words;
    if (now_ == stage::running || !complaint_.empty()) {
        out_.event(words);
    }
}

bool child::is_in_order() const
{
    if (by_signal_) {
        return now_ == stage::asked && status_ == SIGTERM;
    }
    return status_ == 0 || (now_ != stage::running && status_ == tolerated_status) ||
           (now_ == stage::asked && status_ == shells_on_signal + SIGTERM);
}

void child::expect(const std::string &wanted, seconds patience)
{
    if (!loop_.run_until([this] { return has_ended_; }, after(patience))) {
        throw failure(name_ + " did not end in time");
    }
    const char *signal = by_signal_ ? sigabbrev_np(status_) : nullptr; // a real-time one has none
    const std::string seen = signal != nullptr ? std::string("SIG") + signal
                             : by_signal_      ? strsignal(status_)
                                               : std::to_string(status_);
    if (seen != wanted && seen != "SIG" + wanted) {
        throw failure("expected " + name_ + " to end with " + wanted + ", but it was " + seen);
    }
    complaint_.clear();
}

} // namespace confsim
