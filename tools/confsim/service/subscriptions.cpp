// See subscriptions.h.
#include "service/subscriptions.h"

#include <algorithm>
#include <set>
#include <tuple>

namespace confsim {

namespace {

struct ordered_publication {
    publication what;
    std::tuple<int, std::size_t, std::uint64_t, std::size_t> order;
};

} // namespace

void subscription_index::add(const plugin_ptr &whom)
{
    for (std::size_t i = 0; i < whom->configs.size(); ++i) {
        place *at = &top_;
        for (const step &each : whom->configs[i].where) {
            at = &at->below[{each.name, each.module}];
        }
        at->here.push_back({whom, i});
    }
}

void subscription_index::remove(const plugin_ptr &whom)
{
    for (const subscription &each : whom->configs) {
        remove_from(top_, each.where, 0, whom);
    }
}

void subscription_index::remove_from(place &at, const path &where, std::size_t depth,
                                     const plugin_ptr &whom)
{
    if (depth == where.size()) {
        std::erase_if(at.here, [&whom](const entry &each) { return each.of == whom; });
        return;
    }
    const auto next = at.below.find({where[depth].name, where[depth].module});
    if (next != at.below.end()) {
        remove_from(next->second, where, depth + 1, whom);
        if (next->second.here.empty() && next->second.below.empty()) {
            at.below.erase(next);
        }
    }
}

template <typename Visit>
void subscription_index::visit_below(const place &at, Visit &visit)
{
    for (const entry &each : at.here) {
        visit(each);
    }
    for (const auto &[name, next] : at.below) {
        visit_below(next, visit);
    }
}

template <typename Visit>
void subscription_index::visit_around(const path &where, Visit visit) const
{
    const place *at = &top_;
    for (const step &each : where) {
        for (const entry &above : at->here) {
            visit(above);
        }
        const auto next = at->below.find({each.name, each.module});
        if (next == at->below.end()) {
            return;
        }
        at = &next->second;
    }
    visit_below(*at, visit);
}

std::vector<publication>
subscription_index::publications(const std::vector<difference> &changes) const
{
    std::map<entry, std::vector<std::size_t>> concerned;
    for (std::size_t i = 0; i < changes.size(); ++i) {
        visit_around(changes[i].where, [&](const entry &each) { concerned[each].push_back(i); });
    }
    std::vector<ordered_publication> found;
    for (const auto &[to, those] : concerned) {
        const subscription &each = to.of->configs[to.number];
        for (instance_change &change : changed_instances(changes, those, each.where)) {
            found.push_back(
                {{to.of, each.index, each.priority, change.oper, std::move(change.where)},
                 {each.priority, change.order, to.of->serial, to.number}});
        }
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const ordered_publication &left, const ordered_publication &right) {
                         return left.order < right.order;
                     });
    std::vector<publication> ordered;
    ordered.reserve(found.size());
    for (ordered_publication &each : found) {
        ordered.push_back(std::move(each.what));
    }
    return ordered;
}

std::vector<std::string>
subscription_index::unsubscribed(const std::vector<difference> &changes) const
{
    std::vector<std::string> found;
    std::set<std::string> seen;
    for (const difference &change : changes) {
        bool is_heard = false;
        visit_around(change.where, [&](const entry &each) {
            is_heard = is_heard || concerns(change, each.of->configs[each.number].where);
        });
        if (!is_heard) {
            path bare = change.where;
            for (step &each : bare) {
                each.keys.clear();
            }
            if (seen.insert(to_text(bare)).second) {
                found.push_back(to_text(bare));
            }
        }
    }
    return found;
}

std::vector<std::string> subscription_index::paths() const
{
    std::vector<std::string> found;
    auto take = [&found](const entry &each) {
        found.push_back(to_text(each.of->configs[each.number].where));
    };
    visit_below(top_, take);
    return found;
}

} // namespace confsim
