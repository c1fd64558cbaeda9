// A program that confsim runs: started with the sockets open, ended with confsim at the latest.
//
// How it ends decides about the session, too: it must not end by itself with anything but status 0,
// unless that was expected.
#ifndef CONFSIM_CHILD_H
#define CONFSIM_CHILD_H

#include "commands/console.h"
#include "process_space.h"
#include "service/loop.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace confsim {

class child {
public:
    // The program runs in a process group of its own, with nothing on its standard input. Its end
    // is reported, by its name, when it ends by itself. Throws failure when it cannot be started.
    child(event_loop &loop, const console &out, const sandbox::process_space &space,
          const std::string &name, const std::vector<std::string> &command);
    ~child();
    child(const child &) = delete;
    child &operator=(const child &) = delete;

    // Waits until the program ends, which is no reason to complain if it ends with `wanted`: an
    // exit status, or the name of a signal. Throws failure if not, or if it does not end in time.
    void expect(const std::string &wanted, seconds patience);

    // Sends it a signal. Throws failure when it has ended.
    void send(int signal) const;

    // Ends the program and its process group: lets it end by itself first, as the daemon has hung
    // up, then asks it to, and kills it at last.
    void end();

    [[nodiscard]] bool has_ended() const { return has_ended_; }
    // Why the session is to fail: the program ended by itself in a way that was not expected, or
    // ended badly later on. Empty when all is well.
    [[nodiscard]] const std::string &complaint() const { return complaint_; }

private:
    enum class stage { running, hung_up, asked, killed };

    [[noreturn]] void fail(const std::string &program, int error) const;
    void note_end();
    [[nodiscard]] bool is_over_after(seconds delay);
    [[nodiscard]] bool is_in_order() const;

    event_loop &loop_;
    const console &out_;
    std::string name_;
    pid_t process_ = -1;
    int handle_ = -1; // of the process; readable when it has ended
    stage now_ = stage::running;
    bool has_ended_ = false;
    bool by_signal_ = false;
    int status_ = 0; // or the signal
    std::string complaint_;
};

} // namespace confsim

#endif
