// See tree.h.
#include "tree.h"

#include "failure.h"

#include <libxml/chvalid.h>
#include <libxml/xmlstring.h>

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <string_view>

namespace confsim {

namespace {

bool is_usual_key(const node &child)
{
    constexpr std::array<std::string_view, 4> names = {"name", "id", "key", "index"};
    return child.is_leaf() && std::find(names.begin(), names.end(), child.name) != names.end();
}

bool is_named(const node &child, const step &wanted)
{
    return child.name == wanted.name && child.module == wanted.module;
}

// The predicate of an entry, or none when the node is no list entry.
std::vector<predicate> key_of(const node &entry, bool several, std::size_t position)
{
    if (!entry.children.empty() && is_usual_key(entry.children.front())) {
        return {{entry.children.front().name, entry.children.front().text}};
    }
    if (!several) {
        return {};
    }
    if (entry.is_leaf()) {
        return {{".", entry.text}};
    }
    auto key = std::find_if(entry.children.begin(), entry.children.end(), is_usual_key);
    if (key == entry.children.end()) {
        key = std::find_if(entry.children.begin(), entry.children.end(),
                           [](const node &child) { return child.is_leaf(); });
    }
    if (key == entry.children.end()) {
        return {{"", std::to_string(position)}};
    }
    return {{key->name, key->text}};
}

bool matches(const node &candidate, std::size_t position, const predicate &key)
{
    if (key.name.empty()) {
        return key.value == std::to_string(position);
    }
    if (key.name == ".") {
        return candidate.is_leaf() && candidate.text == key.value;
    }
    return std::any_of(
        candidate.children.begin(), candidate.children.end(), [&key](const node &child) {
            return child.is_leaf() && child.name == key.name && child.text == key.value;
        });
}

// The indices of the children that a step leads to.
std::vector<std::size_t> matching(const node &parent, const step &wanted)
{
    std::vector<std::size_t> found;
    std::size_t position = 0;
    for (std::size_t i = 0; i < parent.children.size(); ++i) {
        const node &child = parent.children[i];
        if (!is_named(child, wanted)) {
            continue;
        }
        ++position;
        if (std::all_of(wanted.keys.begin(), wanted.keys.end(),
                        [&](const predicate &key) { return matches(child, position, key); })) {
            found.push_back(i);
        }
    }
    return found;
}

// A value that XML cannot hold, or no parser takes, makes the file that it is stored in unreadable.
void refuse_unprintable(const std::string &text)
{
    constexpr std::size_t longest = 10000000;
    if (text.size() > longest) {
        throw failure("the value is too long");
    }
    if (!text.empty() && text.find_first_not_of(" \t\r\n") == std::string::npos) {
        throw failure("the value holds nothing but blanks, which is read as empty");
    }
    for (std::size_t i = 0; i < text.size();) {
        int length = static_cast<int>(std::min<std::size_t>(text.size() - i, 4));
        const int c = xmlGetUTF8Char(reinterpret_cast<const unsigned char *>(&text[i]), &length);
        if (c < 0 || !xmlIsCharQ(c)) {
            throw failure("the value holds characters that XML cannot hold");
        }
        i += static_cast<std::size_t>(length);
    }
}

node made_for(const step &wanted)
{
    node made{wanted.module, wanted.name, "", {}};
    for (const predicate &key : wanted.keys) {
        if (key.name.empty()) {
            throw failure("there is no " + to_text({wanted}) + " to change");
        }
        refuse_unprintable(key.value);
        if (key.name == ".") {
            made.text = key.value;
        } else {
            made.children.push_back({wanted.module, key.name, key.value, {}});
        }
    }
    return made;
}

void find_below(const node &parent, const path &where, std::size_t depth,
                std::vector<const node *> &found)
{
    for (const std::size_t i : matching(parent, where[depth])) {
        if (depth + 1 == where.size()) {
            found.push_back(&parent.children[i]);
        } else {
            find_below(parent.children[i], where, depth + 1, found);
        }
    }
}

std::size_t remove_below(node &parent, const path &where, std::size_t depth)
{
    const std::vector<std::size_t> found = matching(parent, where[depth]);
    std::size_t removed = 0;
    for (auto index = found.rbegin(); index != found.rend(); ++index) {
        node &child = parent.children[*index];
        const std::size_t below =
            depth + 1 == where.size() ? 1 : remove_below(child, where, depth + 1);
        removed += below;
        if (depth + 1 == where.size() || (below > 0 && child.children.empty())) {
            parent.children.erase(parent.children.begin() + static_cast<std::ptrdiff_t>(*index));
        }
    }
    return removed;
}

// A node that got children would lose its text.
void refuse_below_leaf(const node &place, const path &where)
{
    if (place.is_leaf() && !place.text.empty()) {
        throw failure(to_text(where) + ": " + place.name + " is a leaf");
    }
}

// Leads along a path, making the nodes that are missing.
node &reach(node &top, const path &where)
{
    node *place = &top;
    for (const step &each : where) {
        const std::vector<std::size_t> found = matching(*place, each);
        if (found.size() > 1) {
            throw failure(to_text(where) + " is ambiguous: there are " +
                          std::to_string(found.size()) + " nodes called " + each.name);
        }
        if (found.empty()) {
            refuse_below_leaf(*place, where);
            place->children.push_back(made_for(each));
            place = &place->children.back();
        } else {
            place = &place->children[found.front()];
        }
    }
    return *place;
}

path parent_of(const path &where)
{
    return {where.begin(), where.end() - 1};
}

} // namespace

std::vector<step> steps_of(const std::vector<node> &siblings, const std::vector<node> &others)
{
    using full_name = std::pair<std::string_view, std::string_view>;
    std::map<full_name, std::size_t> counts;
    std::map<full_name, std::size_t> other_counts;
    for (const node &each : siblings) {
        ++counts[{each.module, each.name}];
    }
    for (const node &each : others) {
        ++other_counts[{each.module, each.name}];
    }
    std::map<full_name, std::size_t> positions;
    std::vector<step> steps;
    for (const node &each : siblings) {
        const full_name name = {each.module, each.name};
        const bool several = counts[name] > 1 || other_counts[name] > 1;
        steps.push_back({each.module, each.name, key_of(each, several, ++positions[name])});
    }
    return steps;
}

std::vector<const node *> find(const node &top, const path &where)
{
    std::vector<const node *> found;
    find_below(top, where, 0, found);
    return found;
}

void set(node &top, const path &where, const std::optional<std::string> &text)
{
    node &place = reach(top, where);
    if (!text) {
        return;
    }
    refuse_unprintable(*text);
    if (!place.is_leaf()) {
        throw failure(to_text(where) + " is not a leaf");
    }
    place.text = *text;
}

void put(node &top, const path &where, std::vector<node> instances)
{
    node &parent = reach(top, parent_of(where));
    refuse_below_leaf(parent, where);
    const std::vector<std::size_t> replaced = matching(parent, where.back());
    const std::size_t first = replaced.empty() ? parent.children.size() : replaced.front();
    for (auto index = replaced.rbegin(); index != replaced.rend(); ++index) {
        parent.children.erase(parent.children.begin() + static_cast<std::ptrdiff_t>(*index));
    }
    const std::size_t count = instances.size();
    parent.children.insert(parent.children.begin() + static_cast<std::ptrdiff_t>(first),
                           std::make_move_iterator(instances.begin()),
                           std::make_move_iterator(instances.end()));
    if (find(top, where).size() != count) { // also when the key of a node above has gone
        throw failure("The data are not what " + to_text(where) + " names.");
    }
}

void add_missing(node &to, const node &from)
{
    const std::vector<step> steps = steps_of(from.children, to.children);
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const std::vector<std::size_t> found = matching(to, steps[i]);
        if (found.empty()) {
            to.children.push_back(from.children[i]);
        } else {
            add_missing(to.children[found.front()], from.children[i]);
        }
    }
}

neighbours find_neighbours(const node &top, const path &where)
{
    const path above = parent_of(where);
    const std::vector<const node *> parents =
        above.empty() ? std::vector<const node *>{&top} : find(top, above);
    if (parents.size() != 1 || matching(*parents.front(), where.back()).size() != 1) {
        throw failure(to_text(where) + " does not lead to one node.");
    }
    const node &parent = *parents.front();
    const std::vector<step> steps = steps_of(parent.children, {});
    const std::size_t position = matching(parent, where.back()).front();
    const auto path_to = [&](std::size_t index) {
        path leading = above;
        leading.push_back(steps[index]);
        return leading;
    };
    neighbours found;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        if (i == position || !same_schema(steps[i], where.back())) {
            continue;
        }
        if (i < position) {
            found.previous = path_to(i);
        } else {
            found.next = path_to(i);
            break;
        }
    }
    return found;
}

std::size_t size_of(const node &tree)
{
    std::size_t size = sizeof tree + tree.module.size() + tree.name.size() + tree.text.size();
    for (const node &child : tree.children) {
        size += size_of(child);
    }
    return size;
}

std::size_t depth_of(const node &tree)
{
    std::size_t below = 0;
    for (const node &child : tree.children) {
        below = std::max(below, depth_of(child));
    }
    return 1 + below;
}

std::size_t remove(node &top, const path &where)
{
    return remove_below(top, where, 0);
}

void refuse_duplicates(const node &top, const path &where)
{
    std::set<std::string> seen;
    const std::vector<step> steps = steps_of(top.children, {});
    for (std::size_t i = 0; i < steps.size(); ++i) {
        path here = where;
        here.push_back(steps[i]);
        if (!seen.insert(to_text({steps[i]})).second) {
            throw failure("there is more than one " + to_text(here));
        }
        refuse_duplicates(top.children[i], here);
    }
}

} // namespace confsim
