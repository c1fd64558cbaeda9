// See siblings.h.
#include "tree/siblings.h"

#include "tree/tree.h"

#include <algorithm>
#include <array>

namespace confsim {

namespace {

// From this number on, an index is worth its memory; below the lower one it goes again.
constexpr std::size_t many = 32;
constexpr std::size_t few = 16;

bool is_usual_key(const node &tree)
{
    constexpr std::array<std::string_view, 4> names = {"name", "id", "key", "index"};
    return tree.is_leaf() && std::find(names.begin(), names.end(), tree.name) != names.end();
}

// Names compare before modules, which are few.
using full_name = std::pair<std::string_view, std::string_view>;

full_name name_of(const node &tree)
{
    return {tree.name, tree.module};
}

bool is_named(const node &tree, const step &wanted)
{
    return tree.name == wanted.name && tree.module == wanted.module;
}

// What entries of a list have in common.
struct list_name {
    std::string name;
    std::string module;
    std::string key_name;

    bool operator==(const list_name &) const = default;
};

// What a child is found by. It is a copy, so the index stays as it is when something else in the
// child changes.
struct naming {
    std::shared_ptr<const list_name> list;
    std::string key_value;

    [[nodiscard]] full_name called() const { return {list->name, list->module}; }
};

struct listed {
    std::uint64_t label;
    std::shared_ptr<const naming> as;
};

bool is_same(const naming &left, const naming &right)
{
    return left.key_value == right.key_value &&
           (left.list == right.list || *left.list == *right.list);
}

// Shares with another child's what is the same there.
naming naming_of(const node &tree, const naming *other)
{
    entry_key key = key_of(tree);
    const bool is_alike =
        other != nullptr && other->called() == name_of(tree) && other->list->key_name == key.name;
    return {is_alike ? other->list
                     : std::make_shared<const list_name>(
                           list_name{tree.name, tree.module, std::string(key.name)}),
            std::move(key.value)};
}

listed listed_as(const branch &whom, const naming *other = nullptr)
{
    return {whom.label, std::make_shared<const naming>(naming_of(*whom.tree, other))};
}

struct no_summary {
    no_summary() = default;
    explicit no_summary(const listed & /*of*/) {}
    no_summary &operator+=(const no_summary & /*more*/) { return *this; }
};

struct name_order {
    using summary = no_summary;
    static std::strong_ordering compare(const listed &item, const listed &probe)
    {
        const std::strong_ordering order = item.as->list == probe.as->list
                                               ? std::strong_ordering::equal
                                               : compare(item, probe.as->called());
        return std::is_eq(order) ? item.label <=> probe.label : order;
    }
    static std::strong_ordering compare(const listed &item, const full_name &probe)
    {
        return item.as->called() <=> probe;
    }
};

// All children of a name, or those of them with a key of a name, or those with a key.
struct key_probe {
    full_name called;
    std::optional<std::string_view> key_name{};
    std::optional<std::string_view> key_value{};
};

struct key_order {
    using summary = no_summary;
    static std::strong_ordering compare(const listed &item, const listed &probe)
    {
        const std::strong_ordering order =
            item.as->list == probe.as->list
                ? item.as->key_value <=> probe.as->key_value
                : compare(item,
                          {probe.as->called(), probe.as->list->key_name, probe.as->key_value});
        return std::is_eq(order) ? item.label <=> probe.label : order;
    }
    static std::strong_ordering compare(const listed &item, const key_probe &probe)
    {
        std::strong_ordering order = item.as->called() <=> probe.called;
        if (std::is_eq(order) && probe.key_name) {
            order = item.as->list->key_name <=> *probe.key_name;
        }
        if (std::is_eq(order) && probe.key_value) {
            order = item.as->key_value <=> *probe.key_value;
        }
        return order;
    }
};

bool has_predicate(const node &tree, const predicate &wanted)
{
    if (wanted.name == "." && tree.is_leaf()) {
        return tree.text == wanted.value;
    }
    const entry_key key = key_of(tree);
    if (key.name == wanted.name) {
        return key.value == wanted.value;
    }
    return std::any_of(tree.children.begin(), tree.children.end(), [&](const node &each) {
        return each.is_leaf() && each.name == wanted.name && each.text == wanted.value;
    });
}

// The values of a step for joined names of keys, joined likewise, if it gives them all.
std::optional<std::string> joined_values(const std::string &key_names, const step &wanted)
{
    std::string joined;
    for (std::size_t begin = 0; begin <= key_names.size();) {
        const std::size_t end = std::min(key_names.find('\0', begin), key_names.size());
        const std::string name = key_names.substr(begin, end - begin);
        const auto given =
            std::find_if(wanted.keys.begin(), wanted.keys.end(), [&name](const predicate &each) {
                return each.name == name && !name.empty();
            });
        if (given == wanted.keys.end()) {
            return std::nullopt;
        }
        joined += (begin == 0 ? "" : std::string(1, '\0')) + given->value;
        begin = end + 1;
    }
    return joined;
}

} // namespace

struct siblings::index {
    shared_set<listed, name_order> by_name;
    shared_set<listed, key_order> by_key;
};

extent::extent(const branch &of)
    : has_leaf(of.tree->is_leaf()), has_usual_key(is_usual_key(*of.tree)), bytes(size_of(*of.tree)),
      depth(depth_of(*of.tree))
{
}

extent &extent::operator+=(const extent &more)
{
    has_leaf = has_leaf || more.has_leaf;
    has_usual_key = has_usual_key || more.has_usual_key;
    bytes += more.bytes;
    depth = std::max(depth, more.depth);
    return *this;
}

siblings::siblings(const std::vector<std::shared_ptr<const node>> &in_order)
{
    std::vector<branch> all;
    all.reserve(in_order.size());
    for (const auto &each : in_order) {
        all.push_back({all.size(), each});
    }
    ordered_ = shared_set<branch, document_order>(all);
    keep_index();
}

// Makes the index, or drops it, when the number of children has passed a limit.
void siblings::keep_index()
{
    if (index_ != nullptr && size() < few) {
        index_ = nullptr;
    } else if (index_ == nullptr && size() >= many) {
        std::vector<listed> all;
        all.reserve(size());
        for (iterator each = begin(); each != end(); ++each) {
            all.push_back(listed_as(each.held(), all.empty() ? nullptr : all.back().as.get()));
        }
        const auto sorted_by = [&all](auto order) {
            const auto is_less = [](const listed &left, const listed &right) {
                return std::is_lt(decltype(order)::compare(left, right));
            };
            if (!std::is_sorted(all.begin(), all.end(), is_less)) { // as most files are
                std::sort(all.begin(), all.end(), is_less);
            }
            return shared_set<listed, decltype(order)>(all);
        };
        index made;
        made.by_name = sorted_by(name_order());
        made.by_key = sorted_by(key_order());
        index_ = std::make_shared<const index>(std::move(made));
    }
}

template <typename Change>
void siblings::change_index(const branch &whom, const Change &change)
{
    if (index_ != nullptr) {
        const listed *alike = index_->by_name.first_from(name_of(*whom.tree));
        const listed item = listed_as(whom, alike == nullptr ? nullptr : alike->as.get());
        index changed = *index_;
        change(changed.by_name, item);
        change(changed.by_key, item);
        index_ = std::make_shared<const index>(std::move(changed));
    }
    keep_index();
}

branch siblings::append(node added)
{
    const branch *last = ordered_.back();
    return insert(last == nullptr ? 0 : last->label + 1, std::move(added));
}

branch siblings::insert(std::uint64_t label, node added)
{
    branch held{label, std::make_shared<const node>(std::move(added))};
    ordered_.put(held);
    change_index(held, [](auto &all, const listed &item) { all.put(item); });
    return held;
}

void siblings::replace(const branch &former, node now)
{
    const naming name = naming_of(*former.tree, nullptr);
    if (is_same(name, naming_of(now, &name))) {
        ordered_.put({former.label, std::make_shared<const node>(std::move(now))});
    } else {
        erase(former);
        insert(former.label, std::move(now));
    }
}

void siblings::erase(const branch &former)
{
    ordered_.erase(former);
    change_index(former, [](auto &all, const listed &item) { all.erase(item); });
}

// A few children among which are all that a step leads to: those of the key, where all of the name
// have a key that the step gives; else those of the name.
std::vector<branch> siblings::candidates(const step &wanted) const
{
    std::vector<branch> found;
    if (index_ == nullptr) {
        for (iterator each = begin(); each != end(); ++each) {
            if (is_named(*each, wanted)) {
                found.push_back(each.held());
            }
        }
        return found;
    }
    const auto take = [&](const auto &all, const auto &probe, auto order) {
        for (const listed *item = all.first_from(probe);
             item != nullptr && std::is_eq(decltype(order)::compare(*item, probe));
             item = all.first_after(*item)) {
            found.push_back(*at(item->label));
        }
    };
    const auto &by_key = index_->by_key;
    const key_probe all_named{{wanted.name, wanted.module}};
    const listed *first = by_key.first_from(all_named);
    if (first == nullptr || std::is_neq(key_order::compare(*first, all_named))) {
        return found;
    }
    const std::string &key_name = first->as->list->key_name;
    const std::optional<std::string> given = joined_values(key_name, wanted);
    if (given && by_key.last_up_to(all_named)->as->list->key_name == key_name) {
        take(by_key, key_probe{all_named.called, key_name, *given}, key_order());
    } else {
        take(index_->by_name, all_named.called, name_order());
    }
    return found;
}

std::vector<branch> siblings::matching(const step &wanted) const
{
    std::vector<branch> found = candidates(wanted);
    std::erase_if(found, [&](const branch &each) {
        return !std::all_of(wanted.keys.begin(), wanted.keys.end(), [&](const predicate &key) {
            return key.name.empty() ? key.value == std::to_string(position_of(each))
                                    : has_predicate(*each.tree, key);
        });
    });
    return found;
}

std::size_t siblings::position_of(const branch &whom) const
{
    if (index_ != nullptr) {
        const auto &all = index_->by_name;
        return all.count_before(listed_as(whom)) - all.count_before(name_of(*whom.tree)) + 1;
    }
    return 1 + static_cast<std::size_t>(std::count_if(
                   begin(),
                   std::find_if(begin(), end(),
                                [&whom](const node &each) { return &each == whom.tree.get(); }),
                   [&whom](const node &each) { return name_of(each) == name_of(*whom.tree); }));
}

step siblings::step_to(const branch &whom, bool several) const
{
    const node &tree = *whom.tree;
    step made{tree.module, tree.name, {}};
    if (tree.place != nullptr) {
        for (const std::string &name : tree.place->keys) {
            made.keys.push_back({name, value_of_key(tree, name)});
        }
        several = is_told_by_position(tree);
    }
    if (several || (tree.place == nullptr && tree.children.begin_with_key())) {
        const entry_key key = key_of(tree);
        made.keys.push_back({std::string(key.name),
                             key.name.empty() ? std::to_string(position_of(whom)) : key.value});
    }
    return made;
}

// The next child of the same name in the direction in which `step` goes through a set.
template <typename Accessor>
const branch *siblings::neighbour(const branch &whom, Accessor step) const
{
    const full_name wanted = name_of(*whom.tree);
    if (index_ != nullptr) {
        const listed *found = step(index_->by_name, listed_as(whom));
        return found != nullptr && found->as->called() == wanted ? at(found->label) : nullptr;
    }
    const branch *found = step(ordered_, whom);
    while (found != nullptr && name_of(*found->tree) != wanted) {
        found = step(ordered_, *found);
    }
    return found;
}

const branch *siblings::previous(const branch &whom) const
{
    return neighbour(whom, [](const auto &all, const auto &from) { return all.last_before(from); });
}

const branch *siblings::next(const branch &whom) const
{
    return neighbour(whom, [](const auto &all, const auto &from) { return all.first_after(from); });
}

bool siblings::has_several(const std::string &module, const std::string &name) const
{
    const full_name wanted{name, module};
    if (index_ != nullptr) {
        const auto &all = index_->by_name;
        const listed *first = all.first_from(wanted);
        return first != nullptr && first->as->called() == wanted && all.last_up_to(wanted) != first;
    }
    return std::count_if(begin(), end(),
                         [&](const node &each) { return name_of(each) == wanted; }) > 1;
}

bool siblings::has_twin(const branch &whom) const
{
    if (is_told_by_position(*whom.tree)) {
        return false;
    }
    const entry_key key = key_of(*whom.tree);
    const std::vector<branch> found = candidates(step_to(whom, true));
    return std::any_of(found.begin(), found.end(), [&](const branch &each) {
        return each.label != whom.label && key_of(*each.tree) == key;
    });
}

const branch *siblings::first_twin() const
{
    if (index_ != nullptr) {
        const listed *former = nullptr;
        for (const listed &each : index_->by_key) {
            if (former != nullptr && is_same(*former->as, *each.as) &&
                !is_told_by_position(*at(each.label)->tree)) {
                return at(former->label);
            }
            former = &each;
        }
        return nullptr;
    }
    for (iterator each = begin(); each != end(); ++each) {
        iterator other = each;
        while (++other != end()) {
            if (name_of(*each) == name_of(*other) && !is_told_by_position(*each) &&
                key_of(*each) == key_of(*other)) {
                return &each.held();
            }
        }
    }
    return nullptr;
}

const node *siblings::key() const
{
    const branch *found = ordered_.first_with([](const extent &all) { return all.has_usual_key; });
    if (found == nullptr) {
        found = ordered_.first_with([](const extent &all) { return all.has_leaf; });
    }
    return found == nullptr ? nullptr : found->tree.get();
}

bool siblings::begin_with_key() const
{
    return !empty() && is_usual_key(*begin());
}

void siblings::compare(const siblings &before, const siblings &after, const visitor &visit)
{
    shared_set<branch, document_order>::compare(before.ordered_, after.ordered_, visit);
}

} // namespace confsim
