// See child.h.
#include "child.h"

#include "failure.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace confsim {

namespace {

// How long the program may take to end when it is asked to.
constexpr seconds grace(2);

// What the new process does; it never returns. When the program cannot be run, the reason goes to
// `report`, which is closed otherwise.
[[noreturn]] void become(const std::vector<std::string> &command, int report)
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
    prctl(PR_SET_PDEATHSIG, SIGTERM); // also when confsim is killed
    const int nothing = open("/dev/null", O_RDONLY);
    dup2(nothing, STDIN_FILENO);
    if (nothing > STDIN_FILENO) {
        close(nothing);
    }
    execvp(arguments[0], arguments.data());
    const int error = errno;
    (void)!write(report, &error, sizeof error);
    _exit(127);
}

} // namespace

child::child(event_loop &loop, const console &out, const std::vector<std::string> &command)
    : loop_(loop), out_(out), name_(command.front())
{
    std::array<int, 2> report{};
    if (pipe2(report.data(), O_CLOEXEC) != 0) {
        fail(errno);
    }
    process_ = fork();
    int error = process_ < 0 ? errno : 0;
    if (process_ == 0) {
        setpgid(0, 0);
        become(command, report[1]);
    }
    close(report[1]);
    if (process_ > 0 && read(report[0], &error, sizeof error) == 0) {
        handle_ = static_cast<int>(syscall(SYS_pidfd_open, process_, 0));
        error = handle_ < 0 ? errno : 0;
    }
    close(report[0]);
    if (error != 0) {
        fail(error);
    }
    loop_.watch(handle_, POLLIN, [this](short) { note_end(); });
}

void child::fail(int error) const
{
    throw failure("cannot run " + name_ + ": " + std::generic_category().message(error));
}

child::~child()
{
    if (!has_ended_) {
        kill(-process_, SIGTERM);
        is_ending_ = true;
        loop_.resume();
        if (!loop_.run_until([this] { return has_ended_; }, after(grace))) {
            out_.event(name_ + " does not end and is killed");
        }
    }
    kill(-process_, SIGKILL); // what is left of the group
    waitpid(process_, nullptr, 0);
    loop_.forget(handle_);
    close(handle_);
}

// The process itself is kept until the destructor, so that its id stays its own.
void child::note_end()
{
    siginfo_t end{};
    if (waitid(P_PID, static_cast<id_t>(process_), &end, WEXITED | WNOWAIT) != 0) {
        return;
    }
    loop_.forget(handle_);
    has_ended_ = true;
    const bool by_signal = end.si_code != CLD_EXITED;
    if (is_ending_ && end.si_status == (by_signal ? SIGTERM : 0)) {
        return;
    }
    out_.event(name_ + (by_signal
                            ? std::string(" was ended by a signal: ") + strsignal(end.si_status)
                            : " ended with exit status " + std::to_string(end.si_status)));
}

} // namespace confsim
