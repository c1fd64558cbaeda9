// The commands that give a script its structure. See commands.h.
#include "commands/commands.h"

#include "commands/words.h"
#include "failure.h"

#include <charconv>

namespace confsim {

// Only lines of the session itself can shape it, not what other commands or programs carry out.
script &interpreter::own_script() const
{
    if (script_ == nullptr) {
        throw failure("this can only be a line of a script");
    }
    return *script_;
}

void interpreter::begin_case(const words &line)
{
    const std::string name = join_words(line, 1);
    if (name.empty()) {
        throw failure("a case needs a name");
    }
    own_script().begin_case(name);
    here_.cases->begin(name);
}

void interpreter::end_case(const words & /*line*/)
{
    own_script().end_case();
    here_.found->compare(here_.service.plugins());
    here_.cases->end();
}

void interpreter::include(const words &line)
{
    own_script().include(line[1]);
}

void interpreter::repeat(const words &line)
{
    long count = 0;
    const char *end = line[1].data() + line[1].size();
    const auto read = std::from_chars(line[1].data(), end, count);
    if (read.ec != std::errc() || read.ptr != end || count < 0) {
        throw failure("not a number of times: " + line[1]);
    }
    own_script().repeat(count);
}

} // namespace confsim
