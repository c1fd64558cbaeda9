// See resolve.h.
#include "model/resolve.h"

#include "failure.h"
#include "tree/nearest.h"

#include <algorithm>

namespace confsim {

namespace {

// The children of a name, whatever their module.
std::vector<const schema_node *> called(const schema_node &parent, const std::string &name)
{
    std::vector<const schema_node *> found;
    for (const auto &each : parent.children) {
        if (each->name == name) {
            found.push_back(each.get());
        }
    }
    return found;
}

[[noreturn]] void refuse_unknown(const schema_node &parent, const path &where)
{
    if (parent.has_value()) {
        throw failure(to_text(where) + ": " + parent.name + " is a leaf");
    }
    const step &wanted = where.back();
    std::vector<std::string> names;
    for (const auto &each : parent.children) {
        names.push_back(each->module == wanted.module ? each->name
                                                      : each->module + ":" + each->name);
    }
    throw failure("the model has no " + to_text(where) + hint_of_nearest(wanted.name, names));
}

// The place of a step. A module that the path does not repeat is that of the node above, or of the
// only child of the name.
const schema_node &place_below(const schema_node &parent, const path &where, bool is_repeated)
{
    const step &wanted = where.back();
    const schema_node *found = is_repeated ? parent.child(parent.module, wanted.name) : nullptr;
    if (found == nullptr) {
        found = parent.child(wanted.module, wanted.name);
    }
    if (found == nullptr && is_repeated) {
        const std::vector<const schema_node *> all = called(parent, wanted.name);
        found = all.size() == 1 ? all.front() : nullptr;
    }
    if (found == nullptr) {
        refuse_unknown(parent, where);
    }
    return *found;
}

void resolve_key(predicate &key, const schema_node &place, const path &where)
{
    if (key.name.empty()) {
        return; // a position
    }
    if (key.name == ".") {
        if (!place.has_value()) {
            throw failure(to_text(where) + ": " + place.name + " has no value");
        }
        key.value = canonical_value(place, key.value, where);
        return;
    }
    const schema_node *leaf = place.child(place.module, key.name);
    if (place.kind != schema_node::form::list || leaf == nullptr || !leaf->has_value()) {
        throw failure(to_text(where) + ": " + place.name + " has no key " + key.name +
                      hint_of_nearest(key.name, place.keys));
    }
    key.value = canonical_value(*leaf, key.value, where);
}

} // namespace

std::string canonical_value(const schema_node &leaf, const std::string &value, const path &where)
{
    try {
        return leaf.canonical ? leaf.canonical(value) : value;
    } catch (const failure &reason) {
        throw failure(to_text(where) + ": " + reason.what());
    }
}

path resolved(const schema_node *top, const path &where)
{
    if (top == nullptr) {
        return where;
    }
    path made;
    const schema_node *place = top;
    for (std::size_t i = 0; i < where.size(); ++i) {
        made.push_back(where[i]);
        place = &place_below(*place, made, i > 0 && where[i].module == where[i - 1].module);
        step &here = made.back();
        here.module = place->module;
        for (predicate &key : here.keys) {
            resolve_key(key, *place, made);
        }
        const auto rank = [place](const predicate &key) {
            return std::find(place->keys.begin(), place->keys.end(), key.name) -
                   place->keys.begin();
        };
        std::stable_sort(here.keys.begin(), here.keys.end(),
                         [&rank](const predicate &left, const predicate &right) {
                             return rank(left) < rank(right);
                         });
    }
    return made;
}

const schema_node *place_of(const schema_node *top, const path &where)
{
    for (const step &each : where) {
        top = top == nullptr ? nullptr : top->child(each.module, each.name);
    }
    return top;
}

} // namespace confsim
