// See fault_list.h.
#include "faults/fault_list.h"

#include <algorithm>

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
    note(plugin, in_words(taken));
    return taken;
}

std::optional<fault> fault_list::for_frame(const std::string &plugin)
{
    return take(plugin, [](const fault &each) { return !each.is_of_answers(); });
}

std::optional<fault> fault_list::for_request(const std::string &plugin, const std::string &method)
{
    return take(plugin, [&method](const fault &each) {
        return each.is_of_answers() && each.method == method;
    });
}

void fault_list::note(const std::string &plugin, const std::string &what)
{
    ++happened_[{plugin, what}];
}

std::vector<fault_list::entry> fault_list::entries() const
{
    std::vector<entry> all;
    for (const ordered &each : ordered_) {
        all.push_back({each.plugin, in_words(each.what), each.always, 0});
    }
    for (const auto &[fault, times] : happened_) {
        all.push_back({fault.first, fault.second, false, times});
    }
    return all;
}

} // namespace confsim
