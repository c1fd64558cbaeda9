// A place for processes that end with the one that made it, however that ends.
//
// Where the system allows it, this is a PID namespace of its own, with a /proc to match. Its init
// ends with the maker, also when that is killed, and takes every process of the namespace along,
// whatever sessions they made and signals they ignore. Elsewhere the maker adopts the orphans and
// kills them in the end; nobody does when it is killed itself.
#ifndef CONFSVC_PROCESS_SPACE_H
#define CONFSVC_PROCESS_SPACE_H

#include <string>
#include <sys/types.h>

namespace sandbox {

class process_space {
public:
    // In a sandbox that enter() made.
    process_space();

    // Kills all that is inside. The caller has reaped what it forked.
    ~process_space();
    process_space(const process_space &) = delete;
    process_space &operator=(const process_space &) = delete;

    // Why there is no namespace; empty when there is one.
    [[nodiscard]] const std::string &shortcoming() const { return shortcoming_; }

    // Like fork(2), but the new process, a child of the maker's, is inside. It should do little
    // more than to settle and to execute a program.
    [[nodiscard]] pid_t fork_inside() const;

    // Called in such a process, which ends with the maker from then on, and sees the /proc of the
    // namespace. Returns an error number, or 0.
    [[nodiscard]] int settle() const;

private:
    void start_init();
    void stop_init();

    pid_t maker_;
    pid_t init_ = -1;
    int handle_ = -1; // of init
    int line_ = -1;   // to init, which ends when the other end of it is closed
    std::string shortcoming_;
};

} // namespace sandbox

#endif
