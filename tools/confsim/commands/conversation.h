// A session: commands come, are carried out and answered, until they end or one of a script fails.
#ifndef CONFSIM_CONVERSATION_H
#define CONFSIM_CONVERSATION_H

#include "commands/commands.h"
#include "commands/control.h"
#include "commands/script.h"
#include "reports/cases.h"
#include "reports/program_output.h"

namespace confsim {

class conversation {
public:
    struct channels {
        script &lines;
        bool is_file;                  // a script, whose end is that of the session
        const program_output *answers; // null: there are no answers in JSON
        control *others;               // null: nobody else gives commands
    };

    conversation(const channels &by, interpreter &commands, case_list &cases, event_loop &loop,
                 const console &out)
        : by_(by), commands_(commands), cases_(cases), loop_(loop), out_(out)
    {
    }

    // Carries all out. Returns whether that went well, as far as there is nobody to judge the
    // answers.
    [[nodiscard]] bool hold();

private:
    [[nodiscard]] bool judges() const;
    [[nodiscard]] bool carry_out(const std::string &line);
    void report_failure(const std::string &error);

    channels by_;
    interpreter &commands_;
    case_list &cases_;
    event_loop &loop_;
    const console &out_;
};

} // namespace confsim

#endif
