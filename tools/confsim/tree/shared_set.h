// An ordered set whose copies share what they have in common. A copy costs nothing, a change of one
// copy takes logarithmic time and leaves the others as they are, and two copies are compared in the
// time that their differences take. It is a weight-balanced tree that is never changed in place;
// its leaves hold some items each, so that many take little memory and few take one leaf.
//
// Order::compare(item, probe) gives a std::strong_ordering; a probe is an item, or a part of what
// the order looks at and then equal to a range of items. Order::summary is what a subtree knows of
// its items: made from one item, and added up by +=.
#ifndef CONFSIM_SHARED_SET_H
#define CONFSIM_SHARED_SET_H

#include <algorithm>
#include <compare>
#include <cstddef>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

namespace confsim {

template <typename Item, typename Order>
class shared_set {
    struct tree;
    struct leaf;
    struct fork;
    using link = std::shared_ptr<const tree>;

    struct position {
        const Item *item = nullptr;
        const Item *leaf_end = nullptr;
    };

public:
    using summary = typename Order::summary;

    shared_set() = default;

    // Of items in this order.
    explicit shared_set(const std::vector<Item> &sorted) : root_(built(sorted, 0, sorted.size())) {}

    [[nodiscard]] std::size_t size() const { return size_of(root_.get()); }
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
        return first([&](const Item &item) { return std::is_lt(Order::compare(item, probe)); })
            .item;
    }
    template <typename Probe>
    [[nodiscard]] const Item *first_after(const Probe &probe) const
    {
        return first([&](const Item &item) { return std::is_lteq(Order::compare(item, probe)); })
            .item;
    }
    template <typename Probe>
    [[nodiscard]] const Item *last_before(const Probe &probe) const
    {
        return last([&](const Item &item) { return std::is_lt(Order::compare(item, probe)); });
    }
    template <typename Probe>
    [[nodiscard]] const Item *last_up_to(const Probe &probe) const
    {
        return last([&](const Item &item) { return std::is_lteq(Order::compare(item, probe)); });
    }
    [[nodiscard]] const Item *back() const
    {
        return last([](const Item & /*item*/) { return true; });
    }

    // How many items are less than the probe.
    template <typename Probe>
    [[nodiscard]] std::size_t count_before(const Probe &probe) const
    {
        const auto is_less = [&probe](const Item &item) {
            return std::is_lt(Order::compare(item, probe));
        };
        std::size_t count = 0;
        const tree *at = root_.get();
        while (const fork *inner = as_fork(at)) {
            const bool is_right = is_less(*least(inner->right.get()));
            count += is_right ? size_of(inner->left.get()) : 0;
            at = is_right ? inner->right.get() : inner->left.get();
        }
        const auto [begin, end] = items_of(at);
        return count + static_cast<std::size_t>(std::partition_point(begin, end, is_less) - begin);
    }

    // The first item whose own summary is wanted; a subtree whose summary is not holds none.
    template <typename Wanted>
    [[nodiscard]] const Item *first_with(Wanted is_wanted) const
    {
        const tree *at = root_.get();
        while (const fork *inner = as_fork(at)) {
            at = is_wanted(inner->left->all) ? inner->left.get() : inner->right.get();
        }
        const auto [begin, end] = items_of(at);
        const Item *found =
            std::find_if(begin, end, [&](const Item &item) { return is_wanted(summary(item)); });
        return found == end ? nullptr : found;
    }

    // Calls visit(before, after) for each pair of equal items that differ by !=, in order; one of
    // the two is null where the other set holds no equal item.
    template <typename Visit>
    static void compare(const shared_set &before, const shared_set &after, Visit visit)
    {
        compare_between(before.root_.get(), after.root_.get(), nullptr, nullptr, visit);
    }

    class iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = Item;
        using difference_type = std::ptrdiff_t;
        using pointer = const Item *;
        using reference = const Item &;

        iterator() = default;
        iterator(const shared_set &all, position at) : all_(&all), at_(at) {}

        reference operator*() const { return *at_.item; }
        pointer operator->() const { return at_.item; }
        iterator &operator++()
        {
            const Item &former = *at_.item;
            if (++at_.item == at_.leaf_end) {
                at_ = all_->first([&former](const Item &item) {
                    return std::is_lteq(Order::compare(item, former));
                });
            }
            return *this;
        }
        bool operator==(const iterator &other) const { return at_.item == other.at_.item; }

    private:
        const shared_set *all_ = nullptr;
        position at_;
    };
    [[nodiscard]] iterator begin() const
    {
        return {*this, first([](const Item & /*item*/) { return false; })};
    }
    [[nodiscard]] iterator end() const { return {}; }

private:
    static constexpr std::size_t most = 32; // items of a leaf
    static constexpr std::size_t few = 8;   // of two leaves that become one

    struct tree {
        std::size_t leaves = 1; // one: this is a leaf itself
        summary all{};
    };

    struct leaf : tree {
        explicit leaf(std::vector<Item> held) : items(std::move(held))
        {
            for (const Item &each : items) {
                this->all += summary(each);
            }
        }
        std::vector<Item> items; // one at least
    };

    struct fork : tree {
        fork(link lesser, link greater)
            : left(std::move(lesser)), right(std::move(greater)),
              size(size_of(left.get()) + size_of(right.get())), first(shared_set::least(left.get()))
        {
            this->leaves = left->leaves + right->leaves;
            this->all += left->all;
            this->all += right->all;
        }
        link left;
        link right;
        std::size_t size;
        const Item *first;
    };

    static const fork *as_fork(const tree *any)
    {
        return any == nullptr || any->leaves == 1 ? nullptr : static_cast<const fork *>(any);
    }

    static std::pair<const Item *, const Item *> items_of(const tree *any)
    {
        if (any == nullptr) {
            return {};
        }
        const std::vector<Item> &items = static_cast<const leaf *>(any)->items;
        return {items.data(), items.data() + items.size()};
    }

    static std::size_t size_of(const tree *any)
    {
        if (const fork *inner = as_fork(any)) {
            return inner->size;
        }
        const auto [begin, end] = items_of(any);
        return static_cast<std::size_t>(end - begin);
    }

    static const Item *least(const tree *any)
    {
        const fork *inner = as_fork(any);
        return inner != nullptr ? inner->first : items_of(any).first;
    }

    static link joined(const link &left, const link &right)
    {
        return std::make_shared<const fork>(left, right);
    }

    static link leaf_of(const Item *begin, const Item *end)
    {
        return std::make_shared<const leaf>(std::vector<Item>(begin, end));
    }

    static link built(const std::vector<Item> &sorted, std::size_t begin, std::size_t end)
    {
        if (end - begin <= most) {
            return begin == end ? nullptr : leaf_of(&sorted[begin], sorted.data() + end);
        }
        const std::size_t middle = begin + (end - begin) / 2;
        return joined(built(sorted, begin, middle), built(sorted, middle, end));
    }

    // Joins two trees one of which has become one leaf too heavy or too light. With these factors,
    // which are known to go together, one rotation is enough.
    static constexpr std::size_t heaviest = 3;
    static constexpr std::size_t heaviest_inside = 2;

    static link balanced(const link &left, const link &right)
    {
        if (right->leaves > heaviest * left->leaves) {
            const fork &up = *as_fork(right.get());
            if (up.left->leaves < heaviest_inside * up.right->leaves) {
                return joined(joined(left, up.left), up.right);
            }
            const fork &top = *as_fork(up.left.get());
            return joined(joined(left, top.left), joined(top.right, up.right));
        }
        if (left->leaves > heaviest * right->leaves) {
            const fork &up = *as_fork(left.get());
            if (up.right->leaves < heaviest_inside * up.left->leaves) {
                return joined(up.left, joined(up.right, right));
            }
            const fork &top = *as_fork(up.right.get());
            return joined(joined(up.left, top.left), joined(top.right, right));
        }
        return joined(left, right);
    }

    // Whether an item belongs into the right one of two trees.
    static bool goes_right(const fork &inner, const Item &item)
    {
        return std::is_lteq(Order::compare(*least(inner.right.get()), item));
    }

    static link with(const link &any, const Item &item)
    {
        if (const fork *inner = as_fork(any.get())) {
            return goes_right(*inner, item) ? balanced(inner->left, with(inner->right, item))
                                            : balanced(with(inner->left, item), inner->right);
        }
        const auto [begin, end] = items_of(any.get());
        const Item *place = std::partition_point(begin, end, [&item](const Item &each) {
            return std::is_lt(Order::compare(each, item));
        });
        const bool replaces = place != end && std::is_eq(Order::compare(*place, item));
        std::vector<Item> changed;
        changed.reserve(static_cast<std::size_t>(end - begin) + (replaces ? 0 : 1));
        changed.insert(changed.end(), begin, place);
        changed.push_back(item);
        changed.insert(changed.end(), place + (replaces ? 1 : 0), end);
        return changed.size() <= most ? std::make_shared<const leaf>(std::move(changed))
                                      : built(changed, 0, changed.size());
    }

    static link without(const link &any, const Item &item)
    {
        if (const fork *inner = as_fork(any.get())) {
            const bool is_right = goes_right(*inner, item);
            const link left = is_right ? inner->left : without(inner->left, item);
            const link right = is_right ? without(inner->right, item) : inner->right;
            if (left == nullptr || right == nullptr) {
                return left == nullptr ? right : left;
            }
            const bool are_leaves = left->leaves == 1 && right->leaves == 1;
            return are_leaves && size_of(left.get()) + size_of(right.get()) <= few
                       ? one_leaf(left, right)
                       : balanced(left, right);
        }
        const auto [begin, end] = items_of(any.get());
        std::vector<Item> changed;
        changed.reserve(static_cast<std::size_t>(end - begin));
        std::copy_if(begin, end, std::back_inserter(changed),
                     [&item](const Item &each) { return std::is_neq(Order::compare(each, item)); });
        return changed.empty() ? nullptr : std::make_shared<const leaf>(std::move(changed));
    }

    static link one_leaf(const link &left, const link &right)
    {
        std::vector<Item> all;
        for (const link &each : {left, right}) {
            const auto [begin, end] = items_of(each.get());
            all.insert(all.end(), begin, end);
        }
        return std::make_shared<const leaf>(std::move(all));
    }

    // The first item for which something does not hold that holds for all before it.
    template <typename Holds>
    [[nodiscard]] position first(Holds holds) const
    {
        const tree *at = root_.get();
        const tree *next = nullptr; // what is right behind
        while (const fork *inner = as_fork(at)) {
            const bool is_right = holds(*least(inner->right.get()));
            next = is_right ? next : inner->right.get();
            at = is_right ? inner->right.get() : inner->left.get();
        }
        const auto [begin, end] = items_of(at);
        const Item *found = std::partition_point(begin, end, holds);
        if (found != end) {
            return {found, end};
        }
        while (const fork *inner = as_fork(next)) {
            next = inner->left.get();
        }
        const auto [next_begin, next_end] = items_of(next);
        return {next_begin, next_end};
    }

    // The last item for which something holds that holds for all before it, too.
    template <typename Holds>
    [[nodiscard]] const Item *last(Holds holds) const
    {
        const tree *at = root_.get();
        while (const fork *inner = as_fork(at)) {
            at = holds(*least(inner->right.get())) ? inner->right.get() : inner->left.get();
        }
        const auto [begin, end] = items_of(at);
        const Item *behind = std::partition_point(begin, end, holds);
        return behind == begin ? nullptr : behind - 1;
    }

    // The top of what a tree holds from one item to before another.
    static const tree *trimmed(const tree *any, const Item *low, const Item *high)
    {
        while (const fork *inner = as_fork(any)) {
            const Item &pivot = *least(inner->right.get());
            if (low != nullptr && std::is_lteq(Order::compare(pivot, *low))) {
                any = inner->right.get();
            } else if (high != nullptr && std::is_gteq(Order::compare(pivot, *high))) {
                any = inner->left.get();
            } else {
                break;
            }
        }
        return any;
    }

    // What a leaf, or nothing, holds from one item to before another.
    static std::pair<const Item *, const Item *> between(const tree *any, const Item *low,
                                                         const Item *high)
    {
        auto [begin, end] = items_of(any);
        while (begin != end && low != nullptr && std::is_lt(Order::compare(*begin, *low))) {
            ++begin;
        }
        while (begin != end && high != nullptr && std::is_gteq(Order::compare(end[-1], *high))) {
            --end;
        }
        return {begin, end};
    }

    template <typename Visit>
    static void compare_between(const tree *before, const tree *after, const Item *low,
                                const Item *high, Visit &visit)
    {
        before = trimmed(before, low, high);
        after = trimmed(after, low, high);
        if (before == after) { // shared, or nothing on both sides
            return;
        }
        const fork *inner = as_fork(before) != nullptr ? as_fork(before) : as_fork(after);
        if (inner != nullptr) {
            const Item *pivot = least(inner->right.get());
            compare_between(before, after, low, pivot, visit);
            compare_between(before, after, pivot, high, visit);
            return;
        }
        auto [old, old_end] = between(before, low, high);
        auto [now, now_end] = between(after, low, high);
        while (old != old_end || now != now_end) {
            const std::strong_ordering order = now == now_end   ? std::strong_ordering::less
                                               : old == old_end ? std::strong_ordering::greater
                                                                : Order::compare(*old, *now);
            const Item *gone = std::is_lteq(order) ? old++ : nullptr;
            const Item *come = std::is_gteq(order) ? now++ : nullptr;
            if (gone == nullptr || come == nullptr || *gone != *come) {
                visit(gone, come);
            }
        }
    }

    link root_;
};

} // namespace confsim

#endif
