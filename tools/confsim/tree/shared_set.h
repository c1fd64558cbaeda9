// An ordered set whose copies share what they have in common. A copy costs nothing, a change of one
// copy takes logarithmic time and leaves the others as they are, and two copies are compared in the
// time that their differences take. It is a weight-balanced tree that is never changed in place.
//
// Order::compare(item, probe) gives a std::strong_ordering; a probe is an item, or a part of what
// the order looks at and then equal to a range of items. Order::summary is what a subtree knows of
// its items: made from one item, and added up by +=.
#ifndef CONFSIM_SHARED_SET_H
#define CONFSIM_SHARED_SET_H

#include <compare>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace confsim {

template <typename Item, typename Order>
class shared_set {
    struct knot;
    using link = std::shared_ptr<const knot>;

public:
    using summary = typename Order::summary;

    shared_set() = default;

    // Of items in this order.
    explicit shared_set(const std::vector<Item> &sorted) : root_(built(sorted, 0, sorted.size())) {}

    [[nodiscard]] std::size_t size() const { return size_of(root_); }
    [[nodiscard]] summary total() const { return root_ == nullptr ? summary{} : root_->all; }

    // Takes the item in, in place of an equal one.
    void put(const Item &item) { root_ = with(root_, item); }

    void erase(const Item &item) { root_ = without(root_, item); }

    // The first item that is not less than the probe, the first one that is greater, the last one
    // that is less, and the last one that is not greater; null where there is none. They live as
    // long as any copy that holds them.
    template <typename Probe>
    [[nodiscard]] const Item *first_from(const Probe &probe) const
    {
        return first(
            [&probe](const Item &item) { return std::is_gteq(Order::compare(item, probe)); });
    }
    template <typename Probe>
    [[nodiscard]] const Item *first_after(const Probe &probe) const
    {
        return first(
            [&probe](const Item &item) { return std::is_gt(Order::compare(item, probe)); });
    }
    template <typename Probe>
    [[nodiscard]] const Item *last_before(const Probe &probe) const
    {
        return last([&probe](const Item &item) { return std::is_lt(Order::compare(item, probe)); });
    }
    template <typename Probe>
    [[nodiscard]] const Item *last_up_to(const Probe &probe) const
    {
        return last(
            [&probe](const Item &item) { return std::is_lteq(Order::compare(item, probe)); });
    }
    [[nodiscard]] const Item *front() const
    {
        return first([](const Item & /*item*/) { return true; });
    }
    [[nodiscard]] const Item *back() const
    {
        return last([](const Item & /*item*/) { return true; });
    }

    // How many items are less than the probe.
    template <typename Probe>
    [[nodiscard]] std::size_t count_before(const Probe &probe) const
    {
        std::size_t count = 0;
        for (const knot *at = root_.get(); at != nullptr;) {
            const bool is_less = std::is_lt(Order::compare(at->item, probe));
            count += is_less ? size_of(at->left) + 1 : 0;
            at = is_less ? at->right.get() : at->left.get();
        }
        return count;
    }

    // The first item whose own summary is wanted; a subtree whose summary is not holds none.
    template <typename Wanted>
    [[nodiscard]] const Item *first_with(Wanted is_wanted) const
    {
        const knot *at = root_.get();
        while (at != nullptr && is_wanted(at->all)) {
            if (at->left != nullptr && is_wanted(at->left->all)) {
                at = at->left.get();
            } else if (is_wanted(summary(at->item))) {
                return &at->item;
            } else {
                at = at->right.get();
            }
        }
        return nullptr;
    }

    // Calls visit(before, after) for each pair of equal items that differ by !=, in order; one of
    // the two is null where the other set holds no equal item.
    template <typename Visit>
    static void compare(const shared_set &before, const shared_set &after, Visit visit)
    {
        compare_between(before, after, before.root_.get(), after.root_.get(), nullptr, nullptr,
                        visit);
    }

private:
    struct knot {
        knot(Item held, link lesser, link greater)
            : item(std::move(held)), left(std::move(lesser)), right(std::move(greater)),
              size(size_of(left) + 1 + size_of(right)), all(item)
        {
            for (const link *each : {&left, &right}) {
                if (*each != nullptr) {
                    all += (*each)->all;
                }
            }
        }
        Item item;
        link left;
        link right;
        std::size_t size;
        summary all;
    };

    static std::size_t size_of(const link &tree) { return tree == nullptr ? 0 : tree->size; }

    static link joined(const Item &item, const link &left, const link &right)
    {
        return std::make_shared<const knot>(item, left, right);
    }

    static link built(const std::vector<Item> &sorted, std::size_t begin, std::size_t end)
    {
        if (begin == end) {
            return nullptr;
        }
        const std::size_t middle = begin + (end - begin) / 2;
        return joined(sorted[middle], built(sorted, begin, middle), built(sorted, middle + 1, end));
    }

    // Joins two trees one of which has become one item too heavy or too light. With these factors,
    // which are known to go together, one rotation is enough.
    static constexpr std::size_t heaviest = 3;
    static constexpr std::size_t heaviest_inside = 2;

    static link balanced(const Item &item, const link &left, const link &right)
    {
        const std::size_t left_size = size_of(left);
        const std::size_t right_size = size_of(right);
        if (left_size + right_size > 1 && right_size > heaviest * left_size) {
            const knot &up = *right;
            if (size_of(up.left) < heaviest_inside * size_of(up.right)) {
                return joined(up.item, joined(item, left, up.left), up.right);
            }
            const knot &top = *up.left;
            return joined(top.item, joined(item, left, top.left),
                          joined(up.item, top.right, up.right));
        }
        if (left_size + right_size > 1 && left_size > heaviest * right_size) {
            const knot &up = *left;
            if (size_of(up.right) < heaviest_inside * size_of(up.left)) {
                return joined(up.item, up.left, joined(item, up.right, right));
            }
            const knot &top = *up.right;
            return joined(top.item, joined(up.item, up.left, top.left),
                          joined(item, top.right, right));
        }
        return joined(item, left, right);
    }

    static link with(const link &tree, const Item &item)
    {
        if (tree == nullptr) {
            return joined(item, nullptr, nullptr);
        }
        const std::strong_ordering order = Order::compare(tree->item, item);
        if (std::is_eq(order)) {
            return joined(item, tree->left, tree->right);
        }
        return std::is_gt(order) ? balanced(tree->item, with(tree->left, item), tree->right)
                                 : balanced(tree->item, tree->left, with(tree->right, item));
    }

    static link without(const link &tree, const Item &item)
    {
        if (tree == nullptr) {
            return nullptr;
        }
        const std::strong_ordering order = Order::compare(tree->item, item);
        if (std::is_gt(order)) {
            return balanced(tree->item, without(tree->left, item), tree->right);
        }
        if (std::is_lt(order)) {
            return balanced(tree->item, tree->left, without(tree->right, item));
        }
        if (tree->left == nullptr || tree->right == nullptr) {
            return tree->left == nullptr ? tree->right : tree->left;
        }
        const knot *next = tree->right.get();
        while (next->left != nullptr) {
            next = next->left.get();
        }
        return balanced(next->item, tree->left, without(tree->right, next->item));
    }

    // The first item for which something holds that holds for all behind it, too.
    template <typename Holds>
    [[nodiscard]] const Item *first(Holds holds) const
    {
        const Item *found = nullptr;
        for (const knot *at = root_.get(); at != nullptr;) {
            const bool is_behind = holds(at->item);
            found = is_behind ? &at->item : found;
            at = is_behind ? at->left.get() : at->right.get();
        }
        return found;
    }

    // The last item for which something holds that holds for all before it, too.
    template <typename Holds>
    [[nodiscard]] const Item *last(Holds holds) const
    {
        const Item *found = nullptr;
        for (const knot *at = root_.get(); at != nullptr;) {
            const bool is_before = holds(at->item);
            found = is_before ? &at->item : found;
            at = is_before ? at->right.get() : at->left.get();
        }
        return found;
    }

    // The top of what a tree holds between two items.
    static const knot *trimmed(const knot *tree, const Item *low, const Item *high)
    {
        while (tree != nullptr) {
            if (low != nullptr && std::is_lteq(Order::compare(tree->item, *low))) {
                tree = tree->right.get();
            } else if (high != nullptr && std::is_gteq(Order::compare(tree->item, *high))) {
                tree = tree->left.get();
            } else {
                break;
            }
        }
        return tree;
    }

    [[nodiscard]] const Item *equal_to(const Item &item) const
    {
        const Item *found = first_from(item);
        return found != nullptr && std::is_eq(Order::compare(*found, item)) ? found : nullptr;
    }

    template <typename Visit>
    static void compare_between(const shared_set &before, const shared_set &after, const knot *left,
                                const knot *right, const Item *low, const Item *high, Visit &visit)
    {
        left = trimmed(left, low, high);
        right = trimmed(right, low, high);
        if (left == right) { // shared, or nothing on both sides
            return;
        }
        const Item &pivot = left != nullptr ? left->item : right->item;
        const auto below = [](const knot *tree, const Item &item, bool lesser) {
            const bool is_top = tree != nullptr && &tree->item == &item;
            return !is_top ? tree : lesser ? tree->left.get() : tree->right.get();
        };
        compare_between(before, after, below(left, pivot, true), below(right, pivot, true), low,
                        &pivot, visit);
        const Item *old = before.equal_to(pivot);
        const Item *now = after.equal_to(pivot);
        if (old == nullptr || now == nullptr || *old != *now) {
            visit(old, now);
        }
        compare_between(before, after, below(left, pivot, false), below(right, pivot, false),
                        &pivot, high, visit);
    }

    link root_;
};

} // namespace confsim

#endif
