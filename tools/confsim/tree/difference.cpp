// See difference.h.
#include "tree/difference.h"

#include "conf_api.h"

#include <algorithm>
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
    std::string new_place = "";
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

// A change of the order of entries shows in their labels; then all of the list are to be looked at.
void add_reordered(const siblings &before, const siblings &after, some_children &old,
                   some_children &now)
{
    std::unordered_map<std::string, std::uint64_t> labels; // of the older ones that have an order
    const auto is_ordered = [](const branch &each) {
        return each.tree->place != nullptr && each.tree->place->is_ordered_by_user;
    };
    for (const auto &[label, whom] : old) {
        if (is_ordered(whom)) {
            labels.emplace(to_text(path{before.step_to(whom, true)}), label);
        }
    }
    std::vector<branch> moved; // one of each list
    for (const auto &[label, whom] : now) {
        const auto was =
            is_ordered(whom) ? labels.find(to_text(path{after.step_to(whom, true)})) : labels.end();
        const bool is_known =
            std::any_of(moved.begin(), moved.end(), [place = whom.tree->place](const branch &each) {
                return each.tree->place == place;
            });
        if (was != labels.end() && was->second != label && !is_known) {
            moved.push_back(whom);
        }
    }
    for (const branch &each : moved) {
        add_all_called_as(each, before, old);
        add_all_called_as(each, after, now);
    }
}

// The positions in a sequence of different numbers of those outside of its longest part that grows:
// the fewest whose move gives the order.
std::set<std::size_t> out_of_order(const std::vector<std::uint64_t> &sequence)
{
    std::vector<std::size_t> ends; // of the best part of each length so far
    std::vector<std::size_t> earlier(sequence.size());
    for (std::size_t i = 0; i < sequence.size(); ++i) {
        const auto at = std::lower_bound(
            ends.begin(), ends.end(), sequence[i],
            [&](std::size_t end, std::uint64_t value) { return sequence[end] < value; });
        earlier[i] = at == ends.begin() ? i : *(at - 1);
        if (at == ends.end()) {
            ends.push_back(i);
        } else {
            *at = i;
        }
    }
    std::set<std::size_t> moved;
    std::size_t kept = ends.empty() ? 0 : ends.back();
    for (std::size_t i = sequence.size(); i-- > 0;) {
        if (i == kept) {
            kept = earlier[i];
        } else {
            moved.insert(i);
        }
    }
    return moved;
}

using partners = std::vector<std::pair<const branch *, const branch *>>;

// The places in `all` of the entries that moved among those of their list.
std::set<std::size_t> moved_entries(const partners &all)
{
    struct kept_entries {
        std::vector<std::uint64_t> labels;
        std::vector<std::size_t> positions;
    };
    std::map<const schema_node *, kept_entries> lists;
    for (std::size_t i = 0; i < all.size(); ++i) {
        const auto &[was, is] = all[i];
        if (was != nullptr && is->tree->place != nullptr && is->tree->place->is_ordered_by_user) {
            kept_entries &list = lists[is->tree->place];
            list.labels.push_back(was->label);
            list.positions.push_back(i);
        }
    }
    std::set<std::size_t> moved;
    for (const auto &[place, list] : lists) {
        for (const std::size_t each : out_of_order(list.labels)) {
            moved.insert(list.positions[each]);
        }
    }
    return moved;
}

// In words.
std::string place_of(const branch &whom, const siblings &all)
{
    const branch *previous = all.previous(whom);
    if (previous == nullptr) {
        return "first";
    }
    const std::string step = to_text(path{all.step_to(*previous, true)});
    return "after " + step.substr(step.find(':') + 1);
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
            if (is_told_by_position(*each->tree)) {
                add_all_called_as(*each, before, old);
                add_all_called_as(*each, after, now);
            }
            (each == was ? old : now).emplace(each->label, *each);
        }
    });
    add_reordered(before, after, old, now);
    const auto step_in = [&](const siblings &all, const branch &whom) {
        const node &tree = *whom.tree;
        return all.step_to(whom, before.has_several(tree.module, tree.name) ||
                                     after.has_several(tree.module, tree.name));
    };
    std::unordered_map<std::string, const branch *> left; // of the older ones, by step
    for (const auto &[label, whom] : old) {
        left.emplace(to_text(path{step_in(before, whom)}), &whom);
    }
    partners both;
    std::set<std::uint64_t> kept;
    for (const auto &[label, whom] : now) {
        const auto found = left.find(to_text(path{step_in(after, whom)}));
        both.emplace_back(found == left.end() ? nullptr : found->second, &whom);
        if (both.back().first != nullptr) {
            kept.insert(both.back().first->label);
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
    const std::set<std::size_t> moved = moved_entries(both);
    for (std::size_t i = 0; i < both.size(); ++i) {
        const auto &[was, is] = both[i];
        const branch *earlier = after.last_before(*is);
        if (earlier != nullptr && !now.contains(earlier->label)) { // which is the same in both
            add_removed(earlier->label);
        }
        if (was != nullptr) {
            add_removed(was->label);
        }
        pairs.push_back({step_in(after, *is), was == nullptr ? nullptr : was->tree.get(),
                         is->tree.get(), moved.contains(i) ? place_of(*is, after) : ""});
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
        if (!each.new_place.empty()) {
            found.push_back({where, each.before, each.after, each.new_place});
        }
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
    if (!change.new_place.empty()) {
        return "move " + where + " " + change.new_place;
    }
    return "modify " + where + value(*change.before) + " ->" + value(*change.after);
}

bool concerns(const difference &change, const path &subscribed)
{
    return leads_to(subscribed, change.where) ||
           (change.new_place.empty() && leads_to(change.where, subscribed) &&
            holds_instance(whole(change), change.where, subscribed));
}

std::vector<instance_change> changed_instances(const std::vector<difference> &changes,
                                               const std::vector<std::size_t> &among,
                                               const path &subscribed)
{
    std::vector<instance_change> found;
    std::map<std::string, std::size_t> seen; // their places in what is found
    for (const std::size_t i : among) {
        const difference &change = changes[i];
        const bool is_inside = leads_to(subscribed, change.where);
        if (!is_inside && (!change.new_place.empty() || !leads_to(change.where, subscribed))) {
            continue; // what is inside of an entry that moves stays as it is
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
        const bool is_move = !change.new_place.empty() && change.where.size() == subscribed.size();
        const int whole = change.before == nullptr ? CONFIG_OP_ADD : CONFIG_OP_RM;
        const int oper = is_move ? CONFIG_OP_MOVE : is_modified ? CONFIG_OP_MOD : whole;
        for (path &each : instances) {
            const auto [known, is_new] = seen.emplace(to_text(each), found.size());
            if (is_new) {
                found.push_back({std::move(each), oper, i});
            } else {
                found[known->second].oper |= oper;
            }
        }
    }
    return found;
}

} // namespace confsim
