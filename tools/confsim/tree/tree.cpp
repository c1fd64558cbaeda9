// See tree.h. Changes are made in a version of their own, which takes the place of the former one
// at the end.
#include "tree/tree.h"

#include "failure.h"
#include "tree/xml.h"

#include <algorithm>
#include <functional>

namespace confsim {

namespace {

// Parsers of XML stop at 256; a reply wraps the data in three elements more.
constexpr std::size_t deepest = 250;

path beginning(const path &where, std::size_t count)
{
    return {where.begin(), where.begin() + static_cast<std::ptrdiff_t>(count)};
}

// A value that XML cannot hold, or no parser takes, makes the file that it is stored in unreadable.
void refuse_unprintable(const std::string &text, const path &where)
{
    constexpr std::size_t longest = 10000000;
    if (text.size() > longest) {
        throw failure(to_text(where) + ": the value is too long");
    }
    if (!text.empty() && text.find_first_not_of(" \t\r\n") == std::string::npos) {
        throw failure(to_text(where) +
                      ": the value holds nothing but blanks, which is read as empty");
    }
    if (!xml::can_hold(text)) {
        throw failure(to_text(where) + ": the value holds characters that XML cannot hold");
    }
}

void refuse_twin(const siblings &all, const branch &whom, const path &above)
{
    if (all.has_twin(whom)) {
        path where = above;
        where.push_back(all.step_to(whom, true));
        throw failure("there is more than one " + to_text(where));
    }
}

// A node on the way of a walk through a tree. Its path is made only when there is something to
// complain about.
struct visited {
    const visited *above; // null: that is the node where the walk began
    const siblings &among;
    const branch &whom;
};

path path_to(const path &begin, const visited *node)
{
    if (node == nullptr) {
        return begin;
    }
    path where = path_to(begin, node->above);
    const struct node &tree = *node->whom.tree;
    where.push_back(
        node->among.step_to(node->whom, node->among.has_several(tree.module, tree.name)));
    return where;
}

// What must not stand in a file that is to be read again.
void refuse_content(const node &tree, const path &begin, const visited *here = nullptr)
{
    if (!tree.text.empty() && !tree.is_leaf()) {
        throw failure(to_text(path_to(begin, here)) + " holds both a text and other nodes");
    }
    if (const branch *twin = tree.children.first_twin()) {
        refuse_twin(tree.children, *twin, path_to(begin, here));
    }
    for (auto each = tree.children.begin(); each != tree.children.end(); ++each) {
        if (!each->is_leaf()) {
            const visited next{here, tree.children, each.held()};
            refuse_content(*each, begin, &next);
        }
    }
}

void refuse_depth(const node &tree, const path &where)
{
    if (depth_of(tree) > deepest) {
        throw failure((where.empty() ? "" : to_text(where) + ": ") +
                      "the data are nested too deep");
    }
}

void refuse_missing_keys(const schema_node &place, const path &where)
{
    for (const std::string &name : place.keys) {
        const std::vector<predicate> &given = where.back().keys;
        if (std::none_of(given.begin(), given.end(),
                         [&name](const predicate &each) { return each.name == name; })) {
            std::string complaint = to_text(where);
            complaint += name == "." ? " lacks the value" : " lacks the key " + name;
            complaint.append(", as in [").append(name).append("=\"...\"]");
            throw failure(complaint);
        }
    }
}

const schema_node *place_below(const schema_node *place, const std::string &module,
                               const std::string &name)
{
    return place == nullptr ? nullptr : place->child(module, name);
}

// The node of the last step of a path, with the keys that the step gives.
node made_for(const path &where, const node &parent)
{
    const step &wanted = where.back();
    node made{
        wanted.module, wanted.name, "", {}, place_below(parent.place, wanted.module, wanted.name)};
    if (made.place != nullptr) {
        refuse_missing_keys(*made.place, where);
    }
    for (const predicate &key : wanted.keys) {
        if (key.name.empty()) {
            throw failure("there is no " + to_text(where) + " to change");
        }
        refuse_unprintable(key.value, where);
        if (key.name == ".") {
            made.text = key.value;
        } else {
            const branch added =
                made.children.append({wanted.module,
                                      key.name,
                                      key.value,
                                      {},
                                      place_below(made.place, wanted.module, key.name)});
            refuse_twin(made.children, added, where);
        }
    }
    siblings alone;
    alone.append(made);
    if (alone.matching(wanted).empty()) {
        throw failure(to_text(where) + " contradicts itself");
    }
    return made;
}

// A list entry is known by its key. `several`: there are others of its name.
void refuse_renaming(const node &before, const node &after, bool several, const path &where)
{
    const entry_key key = key_of(before);
    const auto is_key = [&key](const predicate &each) { return each.name == key.name; };
    const bool is_entry =
        before.place != nullptr
            ? before.place->is_list()
            : several || before.children.begin_with_key() ||
                  std::any_of(where.back().keys.begin(), where.back().keys.end(), is_key);
    if (is_entry && !key.name.empty() && key_of(after) != key) {
        throw failure("the key of the list entry " + to_text(where) +
                      " cannot change; delete the entry, and set the other one");
    }
}

// A node that got children would lose its text.
void refuse_below_leaf(const node &place, const path &where)
{
    if (place.is_leaf() && !place.text.empty()) {
        throw failure(to_text(where) + ": " + place.name + " is a leaf");
    }
}

// Does something to the node that the first `length` steps of a path lead to, and makes the nodes
// that are missing. `place` is where the first `done` steps lead.
void edit(node &place, const path &where, std::size_t done, std::size_t length,
          const std::function<void(node &)> &act)
{
    if (done == length) {
        act(place);
        return;
    }
    const std::vector<branch> found = place.children.matching(where[done]);
    const path here = beginning(where, done + 1);
    if (found.size() > 1 && found.front().tree->place != nullptr) {
        refuse_missing_keys(*found.front().tree->place, here);
    }
    if (found.size() > 1) {
        throw failure(to_text(where) + " is ambiguous: there are " + std::to_string(found.size()) +
                      " nodes called " + where[done].name);
    }
    if (found.empty()) {
        refuse_below_leaf(place, where);
    }
    const node before = found.empty() ? made_for(here, place) : *found.front().tree;
    node after = before;
    edit(after, where, done + 1, length, act);
    refuse_renaming(before, after, place.children.has_several(before.module, before.name), here);
    if (found.empty()) {
        const branch added = place.children.append(std::move(after));
        refuse_twin(place.children, added, beginning(where, done));
    } else {
        place.children.replace(found.front(), std::move(after));
    }
}

void find_below(const node &parent, const path &where, std::size_t depth,
                std::vector<const node *> &found)
{
    for (const branch &each : parent.children.matching(where[depth])) {
        if (depth + 1 == where.size()) {
            found.push_back(each.tree.get());
        } else {
            find_below(*each.tree, where, depth + 1, found);
        }
    }
}

std::size_t remove_below(node &parent, const path &where, std::size_t depth)
{
    std::size_t removed = 0;
    const bool several = parent.children.has_several(where[depth].module, where[depth].name);
    for (const branch &each : parent.children.matching(where[depth])) {
        if (depth + 1 == where.size()) {
            parent.children.erase(each);
            ++removed;
            continue;
        }
        node changed = *each.tree;
        const std::size_t below = remove_below(changed, where, depth + 1);
        removed += below;
        if (below > 0) {
            refuse_renaming(*each.tree, changed, several, beginning(where, depth + 1));
            if (changed.is_leaf() && (changed.place == nullptr || !changed.place->is_presence)) {
                parent.children.erase(each);
            } else {
                parent.children.replace(each, std::move(changed));
            }
        }
    }
    return removed;
}

void add_missing_below(node &to, const node &from)
{
    for (auto each = from.children.begin(); each != from.children.end(); ++each) {
        const bool several = from.children.has_several(each->module, each->name) ||
                             to.children.has_several(each->module, each->name);
        const std::vector<branch> found =
            to.children.matching(from.children.step_to(each.held(), several));
        if (found.empty()) {
            to.children.append(*each);
        } else if (found.front().tree != each.held().tree) {
            node changed = *found.front().tree;
            add_missing_below(changed, *each);
            to.children.replace(found.front(), std::move(changed));
        }
    }
}

} // namespace

entry_key key_of(const node &entry)
{
    if (entry.place != nullptr) {
        entry_key key{entry.place->joined_keys, ""};
        for (const std::string &name : entry.place->keys) {
            key.value += (&name == entry.place->keys.data() ? "" : std::string(1, '\0')) +
                         value_of_key(entry, name);
        }
        return key;
    }
    if (entry.is_leaf()) {
        return {".", entry.text};
    }
    const node *key = entry.children.key();
    return key == nullptr ? entry_key{} : entry_key{key->name, key->text};
}

std::string value_of_key(const node &entry, const std::string &name)
{
    if (name == ".") {
        return entry.text;
    }
    const auto found =
        std::find_if(entry.children.begin(), entry.children.end(), [&](const node &each) {
            return each.name == name && each.module == entry.module;
        });
    return found == entry.children.end() ? "" : found->text;
}

bool is_told_by_position(const node &one)
{
    return one.place != nullptr ? one.place->is_list() && one.place->keys.empty()
                                : key_of(one).name.empty();
}

std::vector<const node *> find(const node &top, const path &where)
{
    std::vector<const node *> found;
    find_below(top, where, 0, found);
    return found;
}

void set(node &top, const path &where, const std::optional<std::string> &text)
{
    if (text) {
        refuse_unprintable(*text, where);
    }
    node changed = top;
    edit(changed, where, 0, where.size(), [&](node &place) {
        if (text && !place.is_leaf()) {
            throw failure(to_text(where) + " is not a leaf");
        }
        if (text) {
            place.text = *text;
        }
    });
    refuse_depth(changed, where);
    top = std::move(changed);
}

void put(node &top, const path &where, std::vector<node> instances)
{
    const path above = beginning(where, where.size() - 1);
    const std::size_t count = instances.size();
    node changed = top;
    edit(changed, where, 0, above.size(), [&](node &parent) {
        refuse_below_leaf(parent, where);
        const std::vector<branch> replaced = parent.children.matching(where.back());
        std::vector<branch> added;
        for (const branch &each : replaced) {
            parent.children.erase(each);
        }
        for (node &each : instances) {
            refuse_content(each, where);
            if (added.size() < replaced.size()) {
                added.push_back(
                    parent.children.insert(replaced[added.size()].label, std::move(each)));
            } else {
                added.push_back(parent.children.append(std::move(each)));
            }
        }
        for (const branch &each : added) {
            refuse_twin(parent.children, each, above);
        }
    });
    if (find(changed, where).size() != count) {
        throw failure("The data are not what " + to_text(where) + " names.");
    }
    refuse_depth(changed, where);
    top = std::move(changed);
}

void add_missing(node &to, const node &from)
{
    node changed = to;
    add_missing_below(changed, from);
    refuse_unreadable(changed, {});
    to = std::move(changed);
}

void move(node &top, const path &where, destination to, const path &other)
{
    const bool is_beside = to == destination::before || to == destination::after;
    for (const path *each : {&where, &other}) {
        if ((each == &where || is_beside) && find(top, *each).size() != 1) {
            throw failure(to_text(*each) + " does not lead to one node.");
        }
    }
    const path above = beginning(where, where.size() - 1);
    if (is_beside && to_text(beginning(other, other.size() - 1)) != to_text(above)) {
        throw failure(to_text(other) + " is no entry of the list of " + to_text(where));
    }
    node changed = top;
    edit(changed, where, 0, above.size(), [&](node &parent) {
        const branch whom = parent.children.matching(where.back()).front();
        const std::vector<branch> places =
            parent.children.matching({whom.tree->module, whom.tree->name, {}});
        std::vector<branch> all = places;
        std::erase(all, whom);
        auto next = to == destination::first ? all.begin() : all.end();
        if (is_beside) {
            const std::vector<branch> beside = parent.children.matching(other.back());
            next = std::find(all.begin(), all.end(), beside.front());
            if (next == all.end()) {
                throw failure(to_text(other) + " is no other entry of the list of " +
                              to_text(where));
            }
            next += to == destination::after ? 1 : 0;
        }
        all.insert(next, whom);
        for (std::size_t i = 0; i < all.size(); ++i) {
            if (all[i] != places[i]) { // only the entries that it passes change their labels
                parent.children.replace(places[i], *all[i].tree);
            }
        }
    });
    top = std::move(changed);
}

neighbours find_neighbours(const node &top, const path &where)
{
    const path above = beginning(where, where.size() - 1);
    const std::vector<const node *> parents =
        above.empty() ? std::vector<const node *>{&top} : find(top, above);
    const std::vector<branch> found = parents.size() == 1
                                          ? parents.front()->children.matching(where.back())
                                          : std::vector<branch>();
    if (found.size() != 1) {
        throw failure(to_text(where) + " does not lead to one node.");
    }
    const siblings &all = parents.front()->children;
    const auto path_to = [&](const branch *neighbour) {
        if (neighbour == nullptr) {
            return std::optional<path>();
        }
        path leading = above;
        leading.push_back(all.step_to(*neighbour, true));
        return std::optional(leading);
    };
    return {path_to(all.previous(found.front())), path_to(all.next(found.front()))};
}

std::size_t size_of(const node &tree)
{
    return sizeof tree + tree.module.size() + tree.name.size() + tree.text.size() +
           tree.children.total().bytes;
}

std::size_t depth_of(const node &tree)
{
    return 1 + tree.children.total().depth;
}

std::size_t remove(node &top, const path &where)
{
    node changed = top;
    const std::size_t count = remove_below(changed, where, 0);
    top = std::move(changed);
    return count;
}

void refuse_unreadable(const node &tree, const path &where)
{
    refuse_depth(tree, where);
    refuse_content(tree, where);
}

} // namespace confsim
