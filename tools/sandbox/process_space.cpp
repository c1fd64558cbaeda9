// See process_space.h.
#include "process_space.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

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

// Like fork(), which takes no flags. The C library is not told, so the new process must be content
// with system calls.
pid_t fork_into_namespace()
{
    return static_cast<pid_t>(syscall(SYS_clone, CLONE_NEWPID | SIGCHLD, 0, 0, 0, 0));
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
    init_ = fork_into_namespace();
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
        const int handle = static_cast<int>(syscall(SYS_pidfd_open, init_, 0));
        error = handle >= 0 && setns(handle, CLONE_NEWPID) == 0 ? 0 : errno; // for children
        close(handle);
    }
    if (error != 0) {
        shortcoming_ = std::generic_category().message(error);
    }
}

void process_space::stop_init()
{
    if (line_ >= 0) {
        close(line_);
        line_ = -1;
    }
    if (init_ > 0) {
        kill(init_, SIGKILL);
        waitpid(init_, nullptr, 0); // when all others in the namespace are gone
        init_ = -1;
    }
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
