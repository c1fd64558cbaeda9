// What commands can go on with while they are typed. See commands.h.
#include "commands/commands.h"

#include "faults/fault.h"

#include <algorithm>

namespace confsim {

completion interpreter::complete(const std::string &line) const
{
    surroundings here{{usages(), {}}, here_.config, here_.known};
    for (const std::string &each : known_faults()) {
        const std::size_t end = std::min(each.find(' '), each.size());
        here.words.faults.push_back(
            {each.substr(0, end), each.substr(std::min(end + 1, each.size()))});
    }
    for (const plugin_ptr &each : here_.service.plugins()) {
        here.plugins.push_back(each->called());
        for (const operation &served : each->operations) {
            here.operations.push_back(served.name);
        }
        for (const subscription &published : each->statuses) {
            here.statuses.push_back(to_text(published.where));
        }
    }
    if (here_.started != nullptr) {
        here.programs = here_.started->names();
    }
    return confsim::complete(line, here);
}

} // namespace confsim
