// The program that confsim runs: started with the sockets open, ended with confsim at the latest.
#ifndef CONFSIM_CHILD_H
#define CONFSIM_CHILD_H

#include "console.h"
#include "loop.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace confsim {

class child {
public:
    // The program runs in a process group of its own, with nothing on its standard input. Its end
    // is reported when it ends by itself. Throws failure when it cannot be started.
    child(event_loop &loop, const console &out, const std::vector<std::string> &command);

    // Ends the program and what it started, gently at first.
    ~child();
    child(const child &) = delete;
    child &operator=(const child &) = delete;

private:
    [[noreturn]] void fail(int error) const;
    void note_end();

    event_loop &loop_;
    const console &out_;
    std::string name_;
    pid_t process_ = -1;
    int handle_ = -1;        // of the process; readable when it has ended
    bool is_ending_ = false; // it was asked to end
    bool has_ended_ = false;
};

} // namespace confsim

#endif
