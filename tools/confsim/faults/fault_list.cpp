// See fault_list.h.
#include "faults/fault_list.h"

#include <algorithm>
#include <utility>

namespace confsim {

void fault_list::order(const std::string &plugin, fault what, bool always)
{
    ordered_.push_back({plugin, std::move(what), always});
}

void fault_list::call_off(const std::string &plugin)
{
    ordered_.remove_if(
        [&plugin](const ordered &each) { return plugin == everybody || each.plugin == plugin; });
}

template <typename condition>
std::optional<fault> fault_list::take(const std::string &plugin, condition is_wanted)
{
    const auto found = std::find_if(ordered_.begin(), ordered_.end(), [&](const ordered &each) {
        return (each.plugin == everybody || each.plugin == plugin) && is_wanted(each.what);
    });
    if (found == ordered_.end()) {
        return std::nullopt;
    }
    fault taken = found->what;
    if (!found->always) {
        ordered_.erase(found);
    }
    return taken;
}

std::optional<fault> fault_list::for_frame(const std::string &plugin)
{
    std::optional<fault> met =
        take(plugin, [](const fault &each) { return !each.is_of_answers(); });
    if (!met && chaos_) {
        met = chaos_->for_frame(plugin);
    }
    return noted(plugin, std::move(met));
}

std::optional<fault> fault_list::for_request(const std::string &plugin, const std::string &method)
{
    std::optional<fault> met = take(plugin, [&method](const fault &each) {
        return each.is_of_answers() && each.method == method;
    });
    if (!met && chaos_) {
        met = chaos_->for_request(plugin, method);
    }
    return noted(plugin, std::move(met));
}

std::optional<fault> fault_list::noted(const std::string &plugin, std::optional<fault> what)
{
    if (what) {
        note(plugin, in_words(*what));
    }
    return what;
}

void fault_list::draw_from(std::optional<chaos> drawn)
{
    if (chaos_ && chaos_->times() > 0) {
        happened_[{"", chaos_->in_words()}] += chaos_->times();
    }
    chaos_ = std::move(drawn);
}

std::optional<chaos::trouble> fault_list::for_command()
{
    return chaos_ ? chaos_->for_command() : std::nullopt;
}

void fault_list::note(const std::string &plugin, const std::string &what)
{
    ++happened_[{plugin, what}];
}

std::vector<fault_list::entry> fault_list::entries() const
{
    std::vector<entry> all;
    if (chaos_) {
        all.push_back({"", chaos_->in_words(), true, chaos_->times()});
    }
    for (const ordered &each : ordered_) {
        all.push_back({each.plugin, in_words(each.what), each.always, 0});
    }
    for (const auto &[fault, times] : happened_) {
        all.push_back({fault.first, fault.second, false, times});
    }
    return all;
}

} // namespace confsim
