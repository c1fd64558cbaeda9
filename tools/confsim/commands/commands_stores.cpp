// The commands that deal with configurations. See commands.h.
#include "commands/commands.h"

#include "commands/words.h"
#include "conf_api.h"
#include "failure.h"
#include "service/commit.h"

namespace confsim {

namespace {

json_value publication_data(const publication &what, const answer &got)
{
    json_value data = {{"plugin", what.to->name},
                       {"path", to_text(what.where)},
                       {"change", verb_of(what.oper)},
                       {"rollback", (what.oper & CONFIG_OP_ROLLBACK) != 0},
                       {"ok", got.is_result()}};
    if (got.kind == answer::outcome::refused) {
        data["code"] = got.code;
    }
    if (!got.is_result()) {
        data["text"] = got.message;
    }
    return data;
}

json_value difference_data(const difference &change)
{
    json_value data = {{"change", change.before == nullptr    ? "add"
                                  : change.after == nullptr   ? "remove"
                                  : !change.new_place.empty() ? "move"
                                                              : "modify"},
                       {"path", to_text(change.where)}};
    if (!change.new_place.empty()) {
        data["place"] = change.new_place;
    }
    return data;
}

} // namespace

void interpreter::load(const words &line)
{
    here_.config.load(line[1]);
    say("candidate loaded from " + line[1]);
}

void interpreter::set(const words &line)
{
    const path where = here_.config.as_modelled(parse_path(line[1]));
    concern("", to_text(where));
    here_.config.set(where, line.size() > 2 ? std::optional(line[2]) : std::nullopt);
    say("ok");
}

void interpreter::remove(const words &line)
{
    const path where = here_.config.as_modelled(parse_path(line[1]));
    concern("", to_text(where));
    const std::size_t count = here_.config.remove(where);
    report_->data = count;
    if (count == 0) {
        throw failure("the candidate holds no " + line[1]);
    }
    say(count == 1 ? "ok" : std::to_string(count) + " nodes removed");
}

// A configuration or a part of one, as XML. Masking looks into nodes, which take much longer to
// make.
std::string interpreter::shown(const node &tree) const
{
    return here_.out.masks() ? here_.out.shown(here_.config.as_xml(tree).get())
                             : here_.config.as_xml_text(tree);
}

void interpreter::show(const words &line)
{
    const bool is_json = line.size() > 1 && line[1] == "--json";
    const std::size_t first = is_json ? 2 : 1;
    const node *chosen = line.size() > first ? here_.config.named(line[first]) : nullptr;
    const std::size_t path_position = first + (chosen == nullptr ? 0 : 1);
    const node &tree = chosen == nullptr ? here_.config.running() : *chosen;
    if (line.size() > path_position + 1) {
        throw failure("usage: show [--json] [running|old|candidate|deployment|published] [PATH]");
    }
    std::vector<const node *> nodes = {&tree};
    path where;
    if (line.size() > path_position) {
        where = here_.config.as_modelled(parse_path(line[path_position]));
        concern("", to_text(where));
        nodes = find(tree, where);
    }
    if (nodes.empty()) {
        throw failure("there is no " + line[path_position]);
    }
    if (is_json) {
        say(here_.out.shown(here_.config.as_json(tree, where)));
    } else {
        for (const node *each : nodes) {
            say(shown(*each));
        }
    }
    report_->data = report_->text;
}

void interpreter::diff(const words & /*line*/)
{
    const std::vector<difference> changes =
        differences(here_.config.running(), here_.config.candidate());
    report_->data = json_value::array();
    for (const difference &each : changes) {
        say(to_text(each));
        report_->data.push_back(difference_data(each));
    }
    if (changes.empty()) {
        say("no difference");
    }
}

void interpreter::commit(const words & /*line*/)
{
    report_->data = json_value::array();
    confsim::commit(here_.service, here_.config,
                    {[this](const std::string &text, tone meant) { say(text, meant); },
                     [this](const publication &what, const answer &got) {
                         report_->data.push_back(publication_data(what, got));
                         if ((what.oper & CONFIG_OP_ROLLBACK) != 0 &&
                             got.kind == answer::outcome::refused) {
                             what.to->report("refuses the roll-back of " + to_text(what.where) +
                                             ": " + got.in_words());
                         }
                     }});
}

void interpreter::discard(const words & /*line*/)
{
    here_.config.discard();
    say("ok");
}

} // namespace confsim
