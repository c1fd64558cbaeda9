// The commands that need a model. See commands.h.
#include "commands/commands.h"

#include "failure.h"

#include <map>

namespace confsim {

namespace {

constexpr const char *no_model = "there is no model; see --yang";

} // namespace

void interpreter::move(const words &line)
{
    static const std::map<std::string, destination> known = {{"first", destination::first},
                                                             {"last", destination::last},
                                                             {"before", destination::before},
                                                             {"after", destination::after}};
    const auto found = known.find(line[2]);
    const bool is_beside = line[2] == "before" || line[2] == "after";
    if (found == known.end() || line.size() != (is_beside ? 4 : 3)) {
        throw failure("usage: move PATH first|last, or move PATH before|after PATH");
    }
    const path where = here_.config.as_modelled(parse_path(line[1]));
    concern("", to_text(where));
    here_.config.move(where, found->second, is_beside ? parse_path(line[3]) : path());
    say("ok");
}

void interpreter::validate(const words & /*line*/)
{
    if (here_.config.known_model() == nullptr) {
        throw failure(no_model);
    }
    here_.config.validate();
    say("the model allows the candidate");
}

void interpreter::model(const words &line)
{
    if (here_.config.known_model() == nullptr) {
        throw failure(no_model);
    }
    path where;
    if (line.size() > 1) {
        where = parse_path(line[1]);
        concern("", to_text(where));
    }
    const std::string outline = here_.config.known_model()->outline(where);
    report_->data = outline;
    say(outline);
}

} // namespace confsim
