// See path_candidates.h.
#include "terminal/path_candidates.h"

#include "failure.h"
#include "model/resolve.h"
#include "terminal/typed_path.h"

#include <algorithm>
#include <map>

namespace confsim {

namespace {

// Nodes above that are looked into, where the path leads to many.
constexpr std::size_t most_above = 1000;

bool has_key(const std::vector<predicate> &keys, const std::string &name)
{
    return std::any_of(keys.begin(), keys.end(),
                       [&name](const predicate &each) { return each.name == name; });
}

std::string keys_text(const std::vector<predicate> &keys)
{
    return to_text({{"", "", keys}}).substr(std::string("/:").size());
}

class finder {
public:
    finder(candidates &to, const path_sources &from, const typed_path &typed)
        : to_(to), from_(from), typed_(typed)
    {
        above_ = read(typed.above);
        base_ = typed.above;
        if (!base_.empty() && to_text(parse_path(base_)) != to_text(above_)) {
            base_ = to_text(above_); // a module was left out, which does not go on to all below
        }
        base_ += '/';
        if (from.tree != nullptr) {
            nodes_ = above_.empty() ? std::vector{from.tree} : find(*from.tree, above_);
            nodes_.resize(std::min(nodes_.size(), most_above));
        }
        place_ = place_of(from.model, above_);
    }

    void add_names()
    {
        for (const node *each : nodes_) {
            take_names(*each);
        }
        if (place_ != nullptr && from_.has_new_nodes) {
            take_names(*place_);
        }
        for (const auto &[name, end] : names_) {
            const bool is_fitting = name.starts_with(typed_.name) ||
                                    name.substr(name.find(':') + 1).starts_with(typed_.name);
            if (is_fitting) {
                std::string word = base_;
                word.append(name).append(end);
                to_.add(word, end.empty(), base_.size());
            }
        }
    }

    void add_entries()
    {
        const step wanted = read(base_ + typed_.name).back();
        for (const node *each : nodes_) {
            const bool several = each->children.has_several(wanted.module, wanted.name);
            for (auto child = each->children.begin(); child != each->children.end(); ++child) {
                if (child->name == wanted.name && child->module == wanted.module) {
                    add_entry(each->children.step_to(child.held(), several), *child);
                }
            }
        }
        const schema_node *list =
            place_ == nullptr ? nullptr : place_->child(wanted.module, wanted.name);
        if (list != nullptr && from_.has_new_nodes) {
            add_new_entry(*list);
        }
    }

private:
    [[nodiscard]] path read(const std::string &text) const
    {
        return text.empty() ? path() : resolved(from_.model, parse_path(text));
    }

    [[nodiscard]] std::string called(const std::string &module, const std::string &name) const
    {
        return above_.empty() || above_.back().module != module ? module + ":" + name : name;
    }

    // Names, and what follows them: / leads on, [ to the entries of a list.
    void take_names(const node &parent)
    {
        const node *former = nullptr;
        for (auto each = parent.children.begin(); each != parent.children.end(); ++each) {
            if (former != nullptr && former->name == each->name && former->module == each->module) {
                continue; // in a long list
            }
            former = &*each;
            std::string &end = names_[called(each->module, each->name)];
            if (end.empty()) {
                const bool several = parent.children.has_several(each->module, each->name);
                end = !parent.children.step_to(each.held(), several).keys.empty() ? "["
                      : each->is_leaf()                                           ? ""
                                                                                  : "/";
            }
        }
    }

    void take_names(const schema_node &parent)
    {
        for (const auto &each : parent.children) {
            if (each->is_configuration || from_.has_state) {
                const bool wants_key =
                    each->kind == schema_node::form::list && from_.tree != nullptr;
                names_[called(each->module, each->name)] = wants_key && !each->keys.empty() ? "["
                                                           : each->has_value()              ? ""
                                                                                            : "/";
            }
        }
    }

    [[nodiscard]] bool is_fitting(const std::vector<predicate> &keys) const
    {
        const auto is_given = [&keys](const predicate &wanted) {
            return std::any_of(keys.begin(), keys.end(), [&wanted](const predicate &each) {
                return each.name == wanted.name && each.value == wanted.value;
            });
        };
        const auto goes_on = [this](const predicate &key) {
            return !has_key(typed_.keys, key.name) &&
                   (typed_.open->value
                        ? key.name == typed_.open->name &&
                              key.value.starts_with(*typed_.open->value)
                        : (key.name.empty() ? key.value : key.name).starts_with(typed_.open->name));
        };
        return std::all_of(typed_.keys.begin(), typed_.keys.end(), is_given) &&
               (!typed_.open || std::any_of(keys.begin(), keys.end(), goes_on));
    }

    void add_entry(const step &found, const node &entry)
    {
        if (!found.keys.empty() && is_fitting(found.keys)) {
            to_.add(base_ + typed_.name + keys_text(found.keys) + (entry.is_leaf() ? "" : "/"),
                    entry.is_leaf(), base_.size());
        }
    }

    // The next key of a new entry: with its values, where they can be counted, or up to its value.
    void add_new_entry(const schema_node &list)
    {
        const std::string begin =
            base_ + typed_.name + (typed_.keys.empty() ? "" : keys_text(typed_.keys));
        const auto next = std::find_if(list.keys.begin(), list.keys.end(), [this](const auto &key) {
            return !has_key(typed_.keys, key);
        });
        if (next == list.keys.end()) {
            if (!typed_.open && !list.has_value()) {
                to_.add(begin + "/", false, base_.size());
            }
            return;
        }
        const auto &open = typed_.open;
        if (open && (open->value ? *next != open->name : !next->starts_with(open->name))) {
            return;
        }
        const schema_node *leaf = list.has_value() ? &list : list.child(list.module, *next);
        const bool is_last = next + 1 == list.keys.end();
        for (const std::string &value : leaf->values) {
            if (value.starts_with(open ? open->value.value_or("") : "")) {
                const bool is_whole = is_last && list.has_value();
                to_.add(begin + keys_text({{*next, value}}) + (is_last && !is_whole ? "/" : ""),
                        is_whole, base_.size());
            }
        }
        if (leaf->values.empty() && !(open && open->value)) {
            to_.add(begin + "[" + *next + "=\"", false, base_.size());
        }
    }

    candidates &to_;
    const path_sources &from_;
    const typed_path &typed_;
    path above_;
    std::string base_;
    std::vector<const node *> nodes_;
    const schema_node *place_ = nullptr;
    std::map<std::string, std::string> names_;
};

} // namespace

void add_paths(candidates &to, const path_sources &from)
{
    const std::optional<typed_path> typed = read_typed_path(to.typed());
    if (!typed) {
        return;
    }
    try {
        finder found(to, from, *typed);
        typed->has_keys ? found.add_entries() : found.add_names();
    } catch (const failure &) {
        return; // such a path leads nowhere
    }
}

} // namespace confsim
