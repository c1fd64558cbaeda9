// See difference.h.
#include "difference.h"

#include "conf_api.h"

#include <set>
#include <unordered_map>

namespace confsim {

namespace {

struct pairing {
    step where;
    const node *before;
    const node *after;
};

// The children of two versions of a node, matched, in the order of the newer one; what it lacks
// stands behind what it stood behind before.
std::vector<pairing> pair_children(const std::vector<node> &before, const std::vector<node> &after)
{
    const std::vector<step> before_steps = steps_of(before, after);
    const std::vector<step> after_steps = steps_of(after, before);
    std::unordered_map<std::string, std::size_t> before_index;
    for (std::size_t i = 0; i < before.size(); ++i) {
        before_index.emplace(to_text(path{before_steps[i]}), i);
    }
    std::set<std::size_t> kept;
    std::vector<std::size_t> partners;
    for (const step &each : after_steps) {
        const auto found = before_index.find(to_text(path{each}));
        partners.push_back(found == before_index.end() ? before.size() : found->second);
        kept.insert(partners.back());
    }
    std::vector<pairing> pairs;
    std::size_t next = 0; // of `before`, to be looked at
    const auto add_removed = [&](std::size_t end) {
        for (; next < end; ++next) {
            if (!kept.contains(next)) {
                pairs.push_back({before_steps[next], &before[next], nullptr});
            }
        }
    };
    for (std::size_t i = 0; i < after.size(); ++i) {
        const bool is_new = partners[i] == before.size();
        if (!is_new) {
            add_removed(partners[i]);
        }
        pairs.push_back({after_steps[i], is_new ? nullptr : &before[partners[i]], &after[i]});
    }
    add_removed(before.size());
    return pairs;
}

void compare(const node &before, const node &after, path &where, std::vector<difference> &found)
{
    if (before.is_leaf() && after.is_leaf()) {
        if (before.text != after.text) {
            found.push_back({where, &before, &after});
        }
        return;
    }
    for (const pairing &each : pair_children(before.children, after.children)) {
        where.push_back(each.where);
        if (each.before != nullptr && each.after != nullptr) {
            compare(*each.before, *each.after, where, found);
        } else {
            found.push_back({where, each.before, each.after});
        }
        where.pop_back();
    }
}

// The instances below a tree that was added or removed as a whole.
void instances_below(const node &tree, path &where, const path &subscribed,
                     std::vector<path> &found)
{
    if (where.size() == subscribed.size()) {
        found.push_back(where);
        return;
    }
    const std::vector<step> steps = steps_of(tree.children, {});
    for (std::size_t i = 0; i < steps.size(); ++i) {
        if (same_schema(steps[i], subscribed[where.size()])) {
            where.push_back(steps[i]);
            instances_below(tree.children[i], where, subscribed, found);
            where.pop_back();
        }
    }
}

} // namespace

std::vector<difference> differences(const node &before, const node &after)
{
    std::vector<difference> found;
    path where;
    compare(before, after, where, found);
    return found;
}

std::string to_text(const difference &change)
{
    const std::string where = to_text(change.where);
    const auto value = [](const node &leaf) { return leaf.text.empty() ? "" : " " + leaf.text; };
    if (change.before == nullptr) {
        return "add " + where + value(*change.after);
    }
    if (change.after == nullptr) {
        return "remove " + where;
    }
    return "modify " + where + value(*change.before) + " ->" + value(*change.after);
}

std::vector<instance_change> changed_instances(const std::vector<difference> &changes,
                                               const path &subscribed)
{
    std::vector<instance_change> found;
    std::set<std::string> seen;
    for (std::size_t i = 0; i < changes.size(); ++i) {
        const difference &change = changes[i];
        const bool is_inside = leads_to(subscribed, change.where);
        if (!is_inside && !leads_to(change.where, subscribed)) {
            continue;
        }
        const bool is_modified = change.where.size() > subscribed.size() ||
                                 (change.before != nullptr && change.after != nullptr);
        std::vector<path> instances;
        path where = change.where;
        if (is_inside) {
            where.resize(subscribed.size());
            instances.push_back(where);
        } else {
            instances_below(change.before != nullptr ? *change.before : *change.after, where,
                            subscribed, instances);
        }
        const int whole = change.before == nullptr ? CONFIG_OP_ADD : CONFIG_OP_RM;
        for (path &each : instances) {
            if (seen.insert(to_text(each)).second) {
                found.push_back({std::move(each), is_modified ? CONFIG_OP_MOD : whole, i});
            }
        }
    }
    return found;
}

} // namespace confsim
