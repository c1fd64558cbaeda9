// The commands that deal with plugins. See commands.h.
#include "commands/commands.h"

#include "commands/words.h"
#include "failure.h"
#include "files.h"
#include "service/model_checks.h"
#include "service/refusal.h"
#include "tree/nearest.h"

#include <algorithm>
#include <iterator>
#include <list>

namespace confsim {

namespace {

const char *state_text(plugin::state now)
{
    switch (now) {
    case plugin::state::connected:
        return "connected";
    case plugin::state::registered:
        return "registered";
    case plugin::state::activated:
        return "activated";
    case plugin::state::gone:
        break;
    }
    return "gone";
}

json_value plugin_data(const plugin &whom)
{
    json_value data = {{"name", whom.called()},
                       {"state", state_text(whom.now)},
                       {"process", whom.stream.process()},
                       {"configurations", json_value::array()},
                       {"statuses", json_value::array()},
                       {"operations", json_value::array()}};
    for (const subscription &each : whom.configs) {
        data["configurations"].push_back(
            {{"path", to_text(each.where)}, {"priority", each.priority}, {"index", each.index}});
    }
    for (const subscription &each : whom.statuses) {
        data["statuses"].push_back({{"path", to_text(each.where)}, {"index", each.index}});
    }
    for (const operation &each : whom.operations) {
        data["operations"].push_back({{"name", each.name}, {"index", each.index}});
    }
    return data;
}

// Whether an operation goes by this name, in any form of path.
bool is_called(const operation &known, const std::string &name)
{
    if (known.name == name) {
        return true;
    }
    try {
        return to_text(parse_path(known.name)) == to_text(parse_path(name));
    } catch (const failure &) {
        return false;
    }
}

} // namespace

void interpreter::plugins(const words & /*line*/)
{
    if (here_.service.plugins().empty()) {
        say("no plugin is connected");
    }
    report_->data = json_value::array();
    for (const plugin_ptr &each : here_.service.plugins()) {
        report_->data.push_back(plugin_data(*each));
        say(each->called() + ": " + state_text(each->now) + ", pid " + each->stream.process());
        for (const subscription &config : each->configs) {
            say("    configuration " + to_text(config.where) + ", priority " +
                std::to_string(config.priority) + ", index " + std::to_string(config.index));
        }
        for (const subscription &status : each->statuses) {
            say("    status        " + to_text(status.where) + ", index " +
                std::to_string(status.index));
        }
        for (const operation &operation : each->operations) {
            say("    operation     " + operation.name + ", index " +
                std::to_string(operation.index));
        }
    }
}

const xmlNode *interpreter::result_of(const answer &got, const std::string &plugin,
                                      const std::string &where)
{
    if (!got.is_result()) {
        throw refusal("", plugin, where, got);
    }
    return got.result();
}

std::string interpreter::shown_children(const xmlNode *parent) const
{
    std::string shown;
    for (xmlNode *node = parent->children; node != nullptr; node = node->next) {
        shown += (shown.empty() ? "" : "\n") + here_.out.shown(node);
    }
    return shown;
}

void interpreter::status(const words &line)
{
    const path where = here_.config.as_modelled(parse_path(line[1]));
    plugin_ptr best;
    subscription published{};
    std::vector<std::string> names;
    for (const plugin_ptr &each : here_.service.plugins()) {
        for (const subscription &status : each->statuses) {
            if (each->is_active()) {
                names.push_back(to_text(status.where));
            }
            if (each->is_active() && leads_to(status.where, where) &&
                status.where.size() > published.where.size()) {
                best = each;
                published = status;
            }
        }
    }
    if (best == nullptr) {
        throw failure("no active plugin publishes status of " + line[1] +
                      hint_of_nearest(to_text(where), names));
    }
    xml::node_ptr params = xml::element("params");
    xml::add(params.get(), "path", to_text(where));
    xml::add(params.get(), "session-id", session_id);
    if (line.size() > 2) {
        if (!xml::can_hold(line[2])) {
            throw failure("status of " + line[1] +
                          ": the filter holds characters that XML cannot hold");
        }
        xml::add(params.get(), "filter", line[2]);
    }
    xml::add(params.get(), "callback", std::to_string(published.index));
    const answer got = here_.service.exchange(best, "subscribe", std::move(params));
    concern(best->name, to_text(where));
    const xmlNode *data = xml::child(result_of(got, best->name, to_text(where)), "data");
    here_.service.report_breach(best->name,
                                breach_of_status(here_.config, where, published.where, data));
    const std::string printed = data == nullptr ? "" : shown_children(data);
    report_->data = printed;
    say(printed.empty() ? "no data" : printed);
}

void interpreter::call(const words &line)
{
    std::string input = join_words(line, 2);
    if (input.starts_with('@')) {
        input = read_file(input.substr(1));
    }
    const std::list<plugin_ptr> present = here_.service.plugins(); // one that ends leaves the list
    std::vector<std::string> names;
    for (const plugin_ptr &each : present) {
        const auto found =
            std::find_if(each->operations.begin(), each->operations.end(),
                         [&line](const operation &known) { return is_called(known, line[1]); });
        if (!each->is_active()) {
            continue;
        }
        if (found == each->operations.end()) {
            for (const operation &served : each->operations) {
                names.push_back(served.name);
            }
            continue;
        }
        const xml::doc_ptr info = xml::parse_text("<info>" + input + "</info>", "input");
        const xmlNode *given = xmlDocGetRootElement(info.get());
        const std::string refusal =
            breach_of_operation(here_.config, line[1], confsim::model::message::input, given);
        if (!refusal.empty()) {
            throw failure("the model forbids this input: " + refusal);
        }
        xml::node_ptr params = xml::element("params");
        xml::add(params.get(), "type", "operate");
        xml::add(params.get(), "session-id", session_id);
        xml::add(params.get(), "callback", std::to_string(found->index));
        xml::add(params.get(), xml::copy(given));
        const answer got = here_.service.exchange(each, "publish", std::move(params));
        concern(each->name, line[1]);
        const xmlNode *output = result_of(got, each->name, line[1]);
        here_.service.report_breach(
            each->name,
            breach_of_operation(here_.config, line[1], confsim::model::message::output, output));
        const std::string printed = shown_children(output);
        report_->data = printed;
        say(printed);
        return;
    }
    throw failure("no active plugin serves the operation " + line[1] +
                  hint_of_nearest(line[1], names));
}

plugin_ptr interpreter::active_plugin(const std::string &name) const
{
    plugin_ptr found = here_.service.find(name);
    if (found == nullptr || !found->is_active()) {
        throw failure("there is no active plugin " + name);
    }
    return found;
}

void interpreter::kickoff(const words &line)
{
    std::vector<plugin_ptr> chosen;
    if (line.size() > 1) {
        chosen.push_back(active_plugin(line[1]));
    } else {
        std::copy_if(here_.service.plugins().begin(), here_.service.plugins().end(),
                     std::back_inserter(chosen),
                     [](const plugin_ptr &each) { return each->is_active(); });
    }
    report_->data = json_value::array();
    for (const plugin_ptr &each : chosen) {
        const answer got = here_.service.exchange(each, "kickoff", xml::element("params"));
        (void)result_of(got, each->name, "");
        report_->data.push_back(each->name);
        say(each->name + ": ok");
    }
    if (chosen.empty()) {
        throw failure("there is no active plugin");
    }
}

void interpreter::wait(const words &line)
{
    concern(line[1], "");
    const auto is_there = [&] {
        const plugin_ptr found = here_.service.find(line[1]);
        return found != nullptr && found->is_active();
    };
    if (!here_.loop.run_until(is_there, after(patience_from(line, 2)))) {
        throw failure("plugin " + line[1] + " was not activated in time");
    }
    say("plugin " + line[1] + " is activated");
}

void interpreter::wait_notification(const words &line)
{
    std::optional<std::string> got;
    const auto arrived = [&] { return (got = here_.service.take_notification()).has_value(); };
    if (!here_.loop.run_until(arrived, after(patience_from(line, 1)))) {
        throw failure("no notification arrived in time");
    }
    const std::string shown = here_.out.shown_notification(*got);
    report_->data = shown;
    say(shown);
}

void interpreter::notifications(const words & /*line*/)
{
    report_->data = json_value::array();
    for (const std::string &each : here_.service.notifications()) {
        report_->data.push_back(here_.out.shown_notification(each));
        say(report_->data.back());
    }
    if (here_.service.notifications().empty()) {
        say("no notification was received");
    }
    here_.service.take_all_notifications();
}

} // namespace confsim
