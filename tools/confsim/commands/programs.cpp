// See programs.h.
#include "commands/programs.h"

#include "failure.h"

#include <algorithm>

namespace confsim {

void program_list::start(const std::string &name, const std::vector<std::string> &command)
{
    const bool is_taken = std::any_of(all_.begin(), all_.end(), [&name](const program &each) {
        return each.name == name && !each.process.has_ended();
    });
    if (is_taken) {
        throw failure("there is a program " + name + " already");
    }
    all_.emplace_back(name, loop_, out_, space_, command);
}

child &program_list::named(const std::string &name)
{
    const auto found = std::find_if(all_.rbegin(), all_.rend(),
                                    [&name](const program &each) { return each.name == name; });
    if (found == all_.rend()) {
        throw failure("no program " + name + " was started");
    }
    return found->process;
}

void program_list::end()
{
    for (program &each : all_) {
        each.process.end();
    }
}

std::vector<std::string> program_list::names() const
{
    std::vector<std::string> found;
    for (const program &each : all_) {
        if (!each.process.has_ended()) {
            found.push_back(each.name);
        }
    }
    return found;
}

std::vector<std::string> program_list::complaints() const
{
    std::vector<std::string> found;
    for (const program &each : all_) {
        if (!each.process.complaint().empty()) {
            found.push_back(each.process.complaint());
        }
    }
    return found;
}

} // namespace confsim
