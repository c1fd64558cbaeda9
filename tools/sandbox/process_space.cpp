// See process_space.h.
#include "process_space.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace sandbox {

namespace {

// Gives the calling process a /proc that shows its own PID namespace.
int mount_proc()
{
    const bool mounted =
        unshare(CLONE_NEWNS) == 0 &&
        mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0;
    return mounted ? 0 : errno;
}

// What init does: it reaps orphans and waits for the end of the maker. The line closes the gap
// before prctl(), and tells the maker whether processes can have their /proc here.
[[noreturn]] void be_init(int line)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    (void)std::signal(SIGCHLD, SIG_IGN); // the kernel reaps
    const int error = mount_proc();
    (void)!write(line, &error, sizeof error);
    dup2(line, STDIN_FILENO);
    closefrom(STDIN_FILENO + 1); // pipes of the maker's must not stay open here
    char nothing = 0;
    while (read(STDIN_FILENO, &nothing, 1) != 0) { // only signals interrupt this
    }
    _exit(0);
}

// Like fork(), which takes no flags. The C library is not told, so the new process must not use its
// threads and locks.
pid_t fork_with(int flags)
{
    return static_cast<pid_t>(syscall(SYS_clone, flags | SIGCHLD, 0, 0, 0, 0));
}

// Those of a killed child become children in turn, until there are none.
void kill_children()
{
    bool are_some = true;
    while (are_some) {
        std::ifstream children("/proc/thread-self/children");
        pid_t each = 0;
        are_some = false;
        while (children >> each) {
            kill(each, SIGKILL);
            are_some = true;
        }
        are_some = are_some && waitpid(-1, nullptr, 0) > 0;
    }
}

} // namespace

process_space::process_space() : maker_(getpid())
{
    start_init();
    if (!shortcoming_.empty()) {
        stop_init();
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
}

process_space::~process_space()
{
    stop_init();
    if (!shortcoming_.empty()) {
        kill_children();
    }
}

void process_space::start_init()
{
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        shortcoming_ = std::generic_category().message(errno);
        return;
    }
    init_ = fork_with(CLONE_NEWPID);
    int error = errno;
    if (init_ == 0) {
        close(ends[0]);
        be_init(ends[1]);
    }
    close(ends[1]);
    line_ = ends[0];
    if (init_ > 0 && read(line_, &error, sizeof error) != sizeof error) {
        error = ESRCH;
    }
    if (error == 0) {
        handle_ = static_cast<int>(syscall(SYS_pidfd_open, init_, 0));
        error = handle_ < 0 ? errno : 0;
    }
    if (error != 0) {
        shortcoming_ = std::generic_category().message(error);
    }
}

void process_space::stop_init()
{
    for (int *each : {&line_, &handle_}) {
        if (*each >= 0) {
            close(std::exchange(*each, -1));
        }
    }
    if (init_ > 0) {
        kill(init_, SIGKILL);
        waitpid(init_, nullptr, 0); // when all others in the namespace are gone
        init_ = -1;
    }
}

// Whoever enters the namespace can fork nowhere else from then on, so a helper does that, and makes
// a sibling.
pid_t process_space::fork_inside() const
{
    std::array<int, 2> report{};
    if (!shortcoming_.empty()) {
        return fork();
    }
    if (pipe2(report.data(), O_CLOEXEC) != 0) {
        return -1;
    }
    const pid_t helper = fork();
    if (helper == 0) {
        const pid_t made = setns(handle_, CLONE_NEWPID) == 0 ? fork_with(CLONE_PARENT) : -1;
        if (made == 0) {
            return 0;
        }
        const std::array<int, 2> outcome{made, errno};
        (void)!write(report[1], outcome.data(), sizeof outcome);
        _exit(0);
    }
    close(report[1]);
    std::array<int, 2> outcome{-1, helper < 0 ? errno : ESRCH};
    if (helper > 0) {
        (void)!read(report[0], outcome.data(), sizeof outcome);
        waitpid(helper, nullptr, 0);
    }
    close(report[0]);
    errno = outcome[1];
    return outcome[0];
}

int process_space::settle() const
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (shortcoming_.empty()) {
        return mount_proc();
    }
    return getppid() == maker_ ? 0 : ESRCH;
}

} // namespace sandbox
