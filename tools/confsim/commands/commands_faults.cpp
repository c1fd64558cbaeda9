// The commands that let something go wrong on order. See commands.h.
#include "commands/commands.h"

#include "failure.h"

#include <algorithm>
#include <csignal>
#include <span>
#include <thread>

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
    const auto end = after(patience_from(line, 1));
    here_.service.faults().note("", "stop");
    while (steady_clock::now() < end && !is_to_end()) {
        const auto left = end - steady_clock::now();
        std::this_thread::sleep_for(
            std::min<steady_clock::duration>(left, std::chrono::milliseconds(20)));
    }
    say("ok");
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
