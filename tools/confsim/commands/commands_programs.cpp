// The commands that deal with the programs of run and what they log. See commands.h.
#include "commands/commands.h"

#include "commands/words.h"
#include "failure.h"

#include <csignal>
#include <cstring>

namespace confsim {

namespace {

constexpr const char *needs_run = "this needs confsim run";

int signal_number(const std::string &given)
{
    for (int each = 1; each < NSIG; ++each) {
        const char *name = sigabbrev_np(each);
        if (given == std::to_string(each) ||
            (name != nullptr && (given == name || given == std::string("SIG") + name))) {
            return each;
        }
    }
    throw failure("there is no signal " + given);
}

} // namespace

program_list &interpreter::own_programs() const
{
    if (here_.started == nullptr) {
        throw failure(needs_run);
    }
    return *here_.started;
}

void interpreter::start(const words &line)
{
    if (line[2] != "--") {
        throw failure("usage: start NAME -- COMMAND...");
    }
    own_programs().start(line[1], words(line.begin() + 3, line.end()));
    say("started " + line[1]);
}

void interpreter::signal(const words &line)
{
    const int number = signal_number(line[2]);
    own_programs().named(line[1]).send(number);
    say("ok");
}

void interpreter::wait_exit(const words &line)
{
    expect_end(own_programs().named(line[1]), line, 2);
}

void interpreter::expect_exit(const words &line)
{
    expect_end(own_programs().first(), line, 1);
}

void interpreter::expect_log(const words &line)
{
    const std::string text = expected_text(line);
    if (here_.logs == nullptr) {
        throw failure(needs_run);
    }
    const std::optional<std::string> found = here_.logs->take(text, here_.patience);
    if (!found) {
        throw failure("no program logged \"" + text + "\" in time");
    }
    report_->data = here_.out.shown(*found);
    say(*found);
}

// The status stands at a position of the line, and the time behind it.
void interpreter::expect_end(child &of, const words &line, std::size_t position)
{
    const std::string wanted = line.size() > position ? line[position] : "0";
    of.expect(wanted, patience_from(line, position + 1));
    say("ended as expected: " + wanted);
}

} // namespace confsim
