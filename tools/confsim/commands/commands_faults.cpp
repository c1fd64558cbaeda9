// The commands that let something go wrong on order. See commands.h.
#include "commands/commands.h"

#include "failure.h"

#include <algorithm>
#include <csignal>
#include <set>
#include <span>
#include <thread>
#include <utility>

namespace confsim {

namespace {

// Whether a signal waits that will end the session.
bool is_to_end()
{
    sigset_t waiting;
    sigemptyset(&waiting);
    (void)sigpending(&waiting);
    return sigismember(&waiting, SIGINT) == 1 || sigismember(&waiting, SIGTERM) == 1 ||
           sigismember(&waiting, SIGHUP) == 1;
}

// Whether chaos may strike before this command: it needs plugins, and is no fault itself.
bool needs_plugins(std::span<const std::string> line)
{
    static const std::set<std::string> needing = {
        "commit", "status", "call", "wait", "wait-notification", "expect-message"};
    while (!line.empty() && (line.front() == "fail" || line.front() == "try")) {
        line = line.subspan(1);
    }
    if (line.size() > 2 && line.front() == "expect-within") {
        return needs_plugins(line.subspan(2));
    }
    return !line.empty() && needing.contains(line.front());
}

// "on", which may be left out, or "off".
bool is_on(const std::vector<std::string> &line)
{
    if (line.size() > 1 && line[1] != "on" && line[1] != "off") {
        throw failure("usage: " + line[0] + " [on|off]");
    }
    return line.size() == 1 || line[1] == "on";
}

} // namespace

void interpreter::order_fault(const words &line)
{
    fault_list &all = here_.service.faults();
    if (line.back() == "off" && line.size() <= 3) {
        all.call_off(line.size() == 3 ? line[1] : fault_list::everybody);
        say("ok");
        return;
    }
    if (line.size() < 3) {
        throw failure("usage: fault PLUGIN|all [always] FAULT..., or fault [PLUGIN] off");
    }
    const bool always = line[2] == "always";
    all.order(line[1], read_fault(std::span(line).subspan(always ? 3 : 2)), always);
    concern(line[1], "");
    say("ok");
}

// Draws from all faults, those included that no single frame meets, until it is called off.
void interpreter::draw_faults(const words &line)
{
    fault_list &all = here_.service.faults();
    if (line[1] == "off" && line.size() == 2) {
        all.draw_from(std::nullopt);
        end_trouble();
    } else if (line.size() == 3) {
        all.draw_from(read_chaos(std::span(line).subspan(1)));
    } else {
        throw failure("usage: chaos SEED RATE, or chaos off");
    }
    say("ok");
}

// What chaos does before a command. That the queue is full or the profile cannot be read lasts
// until the next such command.
void interpreter::let_go_wrong(const words &line)
{
    fault_list &all = here_.service.faults();
    if (!all.is_chaos() || !needs_plugins(line)) {
        return;
    }
    end_trouble();
    const std::optional<chaos::trouble> drawn = all.for_command();
    if (!drawn) {
        return;
    }
    here_.out.event("fault: " + drawn->in_words());
    switch (drawn->what) {
    case chaos::trouble::kind::stop:
        hang(seconds(drawn->seconds));
        break;
    case chaos::trouble::kind::restart:
        here_.service.restart(seconds(drawn->seconds));
        break;
    case chaos::trouble::kind::kill:
        hang_up_on_one_of_all(drawn->whom);
        break;
    case chaos::trouble::kind::full:
        here_.service.set_notifier_full(true);
        break;
    case chaos::trouble::kind::unreadable_profile:
        all.note("", "unreadable-profile");
        here_.where.spoil_profile();
        is_profile_spoilt_ = true;
        break;
    }
}

void interpreter::end_trouble()
{
    here_.service.set_notifier_full(false);
    if (std::exchange(is_profile_spoilt_, false)) {
        here_.where.write_profile();
    }
}

void interpreter::hang_up_on_one_of_all(std::uint32_t drawn)
{
    std::vector<plugin_ptr> all(here_.service.plugins().begin(), here_.service.plugins().end());
    if (!all.empty()) {
        std::sort(all.begin(), all.end(),
                  [](const plugin_ptr &a, const plugin_ptr &b) { return a->name < b->name; });
        here_.service.hang_up(all[drawn % all.size()]);
    }
}

void interpreter::faults(const words & /*line*/)
{
    report_->data = json_value::array();
    for (const fault_list::entry &each : here_.service.faults().entries()) {
        say((each.plugin.empty() ? "" : each.plugin + ": ") + each.what +
            (each.times == 0   ? (each.always ? ", always" : ", still to come")
             : each.times == 1 ? ", 1 time"
                               : ", " + std::to_string(each.times) + " times"));
        report_->data.push_back({{"plugin", each.plugin},
                                 {"fault", each.what},
                                 {"always", each.always},
                                 {"times", each.times}});
    }
    if (report_->data.empty()) {
        say("no faults");
    }
}

// Nothing at all is served, as in a daemon that hangs.
void interpreter::stop(const words &line)
{
    hang(patience_from(line, 1));
    say("ok");
}

void interpreter::hang(seconds time)
{
    const auto end = after(time);
    here_.service.faults().note("", "stop");
    while (steady_clock::now() < end && !is_to_end()) {
        const auto left = end - steady_clock::now();
        std::this_thread::sleep_for(
            std::min<steady_clock::duration>(left, std::chrono::milliseconds(20)));
    }
}

void interpreter::restart(const words &line)
{
    here_.service.restart(line.size() > 1 ? patience_from(line, 1) : seconds(0));
    say("ok");
}

void interpreter::hang_up(const words &line)
{
    const plugin_ptr found = here_.service.find(line[1]);
    if (found == nullptr) {
        throw failure("there is no plugin " + line[1]);
    }
    concern(line[1], "");
    here_.service.hang_up(found);
    (void)here_.loop.run_until([&] { return found->now == plugin::state::gone; },
                               after(here_.patience));
    say("ok");
}

void interpreter::fill_notifier(const words &line)
{
    here_.service.set_notifier_full(is_on(line));
    say("ok");
}

void interpreter::spoil_profile(const words &line)
{
    if (is_on(line)) {
        here_.service.faults().note("", "unreadable-profile");
        here_.where.spoil_profile();
    } else {
        here_.where.write_profile();
    }
    say("ok");
}

} // namespace confsim
