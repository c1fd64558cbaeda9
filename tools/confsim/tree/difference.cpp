// See difference.h.
#include "tree/difference.h"

#include "conf_api.h"

#include <limits>
#include <map>
#include <set>
#include <unordered_map>

namespace confsim {

namespace {

struct pairing {
    step where;
    const node *before;
    const node *after;
};

// Some children of one version, in document order.
using some_children = std::map<std::uint64_t, branch>;

// A child without a key is told by its position, which others may have changed: all of its name are
// to be compared.
void add_all_called_as(const branch &whom, const siblings &all, some_children &to)
{
    for (const branch &each : all.matching({whom.tree->module, whom.tree->name, {}})) {
        to.emplace(each.label, each);
    }
}

// The children of two versions of a node that are not the same in both, matched, in the order of
// the newer one; what it lacks stands behind what it stood behind before.
std::vector<pairing> pair_changed(const siblings &before, const siblings &after)
{
    some_children old;
    some_children now;
    siblings::compare(before, after, [&](const branch *was, const branch *is) {
        for (const branch *each : {was, is}) {
            if (each == nullptr) {
                continue;
            }
            if (key_of(*each->tree).name.empty()) {
                add_all_called_as(*each, before, old);
                add_all_called_as(*each, after, now);
            }
            (each == was ? old : now).emplace(each->label, *each);
        }
    });
    const auto step_in = [&](const siblings &all, const branch &whom) {
        const node &tree = *whom.tree;
        return all.step_to(whom, before.has_several(tree.module, tree.name) ||
                                     after.has_several(tree.module, tree.name));
    };
    std::unordered_map<std::string, const branch *> left; // of the older ones, by step
    for (const auto &[label, whom] : old) {
        left.emplace(to_text(path{step_in(before, whom)}), &whom);
    }
    std::vector<std::pair<const branch *, const branch *>> partners;
    std::set<std::uint64_t> kept;
    for (const auto &[label, whom] : now) {
        const auto found = left.find(to_text(path{step_in(after, whom)}));
        partners.emplace_back(found == left.end() ? nullptr : found->second, &whom);
        if (partners.back().first != nullptr) {
            kept.insert(partners.back().first->label);
        }
    }
    std::vector<pairing> pairs;
    auto next = old.begin(); // to be looked at
    const auto add_removed = [&](const auto &end) {
        for (; next != old.end() && (next->first < end); ++next) {
            if (!kept.contains(next->first)) {
                pairs.push_back({step_in(before, next->second), next->second.tree.get(), nullptr});
            }
        }
    };
    for (const auto &[was, is] : partners) {
        const branch *earlier = after.last_before(*is);
        if (earlier != nullptr && !now.contains(earlier->label)) { // which is the same in both
            add_removed(earlier->label);
        }
        if (was != nullptr) {
            add_removed(was->label);
        }
        pairs.push_back(
            {step_in(after, *is), was == nullptr ? nullptr : was->tree.get(), is->tree.get()});
    }
    add_removed(std::numeric_limits<std::uint64_t>::max());
    return pairs;
}

void compare(const node &before, const node &after, path &where, std::vector<difference> &found)
{
    if (&before == &after) {
        return;
    }
    if (before.is_leaf() && after.is_leaf()) {
        if (before.text != after.text) {
            found.push_back({where, &before, &after});
        }
        return;
    }
    for (const pairing &each : pair_changed(before.children, after.children)) {
        where.push_back(each.where);
        if (each.before != nullptr && each.after != nullptr) {
            compare(*each.before, *each.after, where, found);
        } else {
            found.push_back({where, each.before, each.after});
        }
        where.pop_back();
    }
}

const node &whole(const difference &change)
{
    return change.before != nullptr ? *change.before : *change.after;
}

// Whether something below a tree, which stands at `where`, is an instance.
bool holds_instance(const node &tree, const path &where, const path &subscribed)
{
    path below;
    for (std::size_t i = where.size(); i < subscribed.size(); ++i) {
        below.push_back({subscribed[i].module, subscribed[i].name, {}});
    }
    return below.empty() || !find(tree, below).empty();
}

// The instances below a tree that was added or removed as a whole.
void instances_below(const node &tree, path &where, const path &subscribed,
                     std::vector<path> &found)
{
    if (where.size() == subscribed.size()) {
        found.push_back(where);
        return;
    }
    const step &wanted = subscribed[where.size()];
    const bool several = tree.children.has_several(wanted.module, wanted.name);
    for (const branch &each : tree.children.matching({wanted.module, wanted.name, {}})) {
        where.push_back(tree.children.step_to(each, several));
        instances_below(*each.tree, where, subscribed, found);
        where.pop_back();
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

bool concerns(const difference &change, const path &subscribed)
{
    return leads_to(subscribed, change.where) ||
           (leads_to(change.where, subscribed) &&
            holds_instance(whole(change), change.where, subscribed));
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
            instances_below(whole(change), where, subscribed, instances);
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
