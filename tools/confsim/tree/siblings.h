// The children of a node, in document order. Copies share what they have in common, down to whole
// subtrees, so a version of a configuration costs what it changes of the one before.
//
// Each child has a label, which grows in document order and which it keeps from version to version.
// Where there are many children, an index finds them by name and key.
#ifndef CONFSIM_SIBLINGS_H
#define CONFSIM_SIBLINGS_H

#include "tree/path.h"
#include "tree/shared_set.h"

#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace confsim {

struct node;

struct branch {
    std::uint64_t label;
    std::shared_ptr<const node> tree;

    bool operator==(const branch &) const = default;
};

// What is known of some children and all below them.
struct extent {
    bool has_leaf = false;      // among the children themselves
    bool has_usual_key = false; // a leaf called name, id, key or index
    std::size_t bytes = 0;      // roughly
    std::size_t depth = 0;      // of the nodes on the longest way down

    extent() = default;
    explicit extent(const branch &of);
    extent &operator+=(const extent &more);
};

struct document_order {
    using summary = extent;
    static std::strong_ordering compare(const branch &item, const branch &probe)
    {
        return item.label <=> probe.label;
    }
    static std::strong_ordering compare(const branch &item, std::uint64_t label)
    {
        return item.label <=> label;
    }
};

class siblings {
    using held_iterator = shared_set<branch, document_order>::iterator;

public:
    siblings() = default;
    explicit siblings(const std::vector<std::shared_ptr<const node>> &in_order);

    [[nodiscard]] std::size_t size() const { return ordered_.size(); }
    [[nodiscard]] bool empty() const { return size() == 0; }
    [[nodiscard]] extent total() const { return ordered_.total(); }

    // Adds a node at the end, or at a label where none stands; replaces one; removes one.
    branch append(node added);
    branch insert(std::uint64_t label, node added);
    void replace(const branch &former, node now);
    void erase(const branch &former);

    // Those that a step leads to, in document order.
    [[nodiscard]] std::vector<branch> matching(const step &wanted) const;

    // The step to a child, which is one of several of its name here or, as the caller says,
    // elsewhere.
    [[nodiscard]] step step_to(const branch &whom, bool several) const;
    [[nodiscard]] bool has_several(const std::string &module, const std::string &name) const;

    // Another one to which a step to the child would lead as well: a list entry of the same name
    // and key or, where the model allows but one, a node of the same name.
    [[nodiscard]] bool has_twin(const branch &whom) const;
    // One that has; null when none does. It takes the time of one look at each.
    [[nodiscard]] const branch *first_twin() const;

    // The child of the same name before and behind one; null when there is none.
    [[nodiscard]] const branch *previous(const branch &whom) const;
    [[nodiscard]] const branch *next(const branch &whom) const;

    // The child right before one, of any name; null when there is none.
    [[nodiscard]] const branch *last_before(const branch &whom) const
    {
        return ordered_.last_before(whom.label);
    }

    // The leaf whose text is the key of the node, if it is a list entry: the first one that is
    // called as keys usually are, else the first one. Null when there is no leaf.
    [[nodiscard]] const node *key() const;
    // Whether the very first child is that, and is called as keys usually are.
    [[nodiscard]] bool begin_with_key() const;

    // Calls the visitor for each label under which two versions hold different trees; one of the
    // two is null where nothing stands. What they share is not looked at.
    using visitor = std::function<void(const branch *before, const branch *after)>;
    static void compare(const siblings &before, const siblings &after, const visitor &visit);

    class iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = node;
        using difference_type = std::ptrdiff_t;
        using pointer = const node *;
        using reference = const node &;

        iterator() = default;
        explicit iterator(held_iterator at) : at_(at) {}

        reference operator*() const { return *at_->tree; }
        pointer operator->() const { return at_->tree.get(); }
        [[nodiscard]] const branch &held() const { return *at_; }
        iterator &operator++()
        {
            ++at_;
            return *this;
        }
        bool operator==(const iterator &other) const = default;

    private:
        held_iterator at_;
    };
    [[nodiscard]] iterator begin() const { return iterator(ordered_.begin()); }
    [[nodiscard]] iterator end() const { return {}; }

private:
    struct index;

    void keep_index();
    template <typename Change>
    void change_index(const branch &whom, const Change &change);
    [[nodiscard]] const branch *at(std::uint64_t label) const { return ordered_.first_from(label); }
    template <typename Accessor>
    [[nodiscard]] const branch *neighbour(const branch &whom, Accessor step) const;
    [[nodiscard]] std::size_t position_of(const branch &whom) const;
    [[nodiscard]] std::vector<branch> candidates(const step &wanted) const;

    shared_set<branch, document_order> ordered_;
    std::shared_ptr<const index> index_; // null where there are few
};

} // namespace confsim

#endif
