// What changed between two configurations, and what that means to a subscription.
#ifndef CONFSIM_DIFFERENCE_H
#define CONFSIM_DIFFERENCE_H

#include "tree/tree.h"

#include <string>
#include <vector>

namespace confsim {

// A whole tree that was added (`before` null) or removed (`after` null), a leaf with a new text, or
// a list entry with a new place among those of its list. The order of siblings is no difference,
// unless a model says that users order them.
struct difference {
    path where;
    const node *before;
    const node *after;
    std::string new_place = ""; // of an entry that moved: "first", or "after" and the one before it
};

// In document order; what was removed stands where it was. The pointers lead into the two trees.
[[nodiscard]] std::vector<difference> differences(const node &before, const node &after);

[[nodiscard]] std::string to_text(const difference &change);

// Whether a subscribed node, or one below it, changed.
[[nodiscard]] bool concerns(const difference &change, const path &subscribed);

// One changed instance of a subscribed node.
struct instance_change {
    path where;
    int oper;          // CONFIG_OP_ADD, CONFIG_OP_RM, or one or both of CONFIG_OP_MOD and _MOVE
    std::size_t order; // of the first difference that it holds
};

// The changed instances of the nodes that `subscribed` leads to, each once, in document order.
// `among` has the numbers of the changes that can hold any.
[[nodiscard]] std::vector<instance_change> changed_instances(const std::vector<difference> &changes,
                                                             const std::vector<std::size_t> &among,
                                                             const path &subscribed);

} // namespace confsim

#endif
