// See conversation.h.
#include "commands/conversation.h"

#include "trace/mask.h"

namespace confsim {

// Whether a failed command ends something: for people and for programs that read the answers, it
// does not.
bool conversation::judges() const
{
    return by_.is_file || (by_.lines.is_script() && by_.answers == nullptr);
}

bool conversation::hold()
{
    bool goes_on = true;
    while (goes_on && !commands_.has_quit() && !loop_.is_interrupted()) {
        const std::optional<std::string> line = by_.lines.next_line();
        goes_on = line && carry_out(*line);
        if (by_.others != nullptr) {
            by_.others->serve();
            if (!line && by_.lines.is_script() && !by_.is_file) {
                (void)loop_.run_until([this] { return commands_.has_quit(); });
            }
        }
    }
    if (commands_.has_quit()) {
        return !judges() || cases_.failures() == 0;
    }
    if (loop_.is_interrupted()) {
        cases_.fail(by_.lines.position(), "interrupted");
        return false;
    }
    if (cases_.goes_on() && cases_.failures() == 0) {
        report_failure("the case has no end");
    }
    return !judges() || cases_.failures() == 0;
}

// Returns whether the session goes on.
bool conversation::carry_out(const std::string &line)
{
    if (by_.lines.is_script() && line.find_first_not_of(" \t\r") != std::string::npos) {
        out_.print_command(line);
    }
    const bool succeeded = commands_.run(line, &by_.lines);
    if (by_.answers != nullptr && commands_.last()) {
        by_.answers->write(to_json(*commands_.last()) + '\n');
    }
    if (succeeded) {
        return true;
    }
    report_failure(commands_.error());
    if (judges() && cases_.goes_on()) {
        by_.lines.skip_case();
        return true;
    }
    return !judges();
}

void conversation::report_failure(const std::string &error)
{
    cases_.fail(by_.lines.position(), masked(error));
    if (judges()) {
        print_error(by_.lines.position() + ": " + out_.shown(error));
    }
}

} // namespace confsim
