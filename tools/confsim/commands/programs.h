// The programs of a session: the COMMAND of run, and those that commands start beside it.
#ifndef CONFSIM_PROGRAMS_H
#define CONFSIM_PROGRAMS_H

#include "commands/child.h"

#include <list>
#include <string>
#include <vector>

namespace confsim {

class program_list {
public:
    // All of them run in `space`.
    program_list(event_loop &loop, const console &out, const sandbox::process_space &space)
        : loop_(loop), out_(out), space_(space)
    {
    }

    // Throws failure when it cannot be started, and while another one of that name runs.
    void start(const std::string &name, const std::vector<std::string> &command);

    // The last one of that name, or the COMMAND of run. Throws failure when there is none.
    [[nodiscard]] child &named(const std::string &name);
    [[nodiscard]] child &first() { return all_.front().process; }

    void end();

    // Those that run.
    [[nodiscard]] std::vector<std::string> names() const;

    // Why the session is to fail: one for each program that did not end as it should.
    [[nodiscard]] std::vector<std::string> complaints() const;

private:
    struct program {
        program(const std::string &called, event_loop &loop, const console &out,
                const sandbox::process_space &space, const std::vector<std::string> &command)
            : name(called), process(loop, out, space, called, command)
        {
        }

        std::string name;
        child process;
    };

    event_loop &loop_;
    const console &out_;
    const sandbox::process_space &space_;
    std::list<program> all_; // those that have ended, too, in the order of their starts
};

} // namespace confsim

#endif
