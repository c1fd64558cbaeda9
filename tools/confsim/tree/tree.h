// A configuration as a tree of values, and where its nodes stand.
//
// A model, where there is one, tells what is a list and what its keys are; see schema.h. Without, a
// node is a list entry when its first child is a leaf called name, id, key or index, or when it
// stands, before or after a change, among several siblings of its name. The key is that first
// child; else the first child called so; else its first leaf; else, of a leaf, its own text; else
// its position.
#ifndef CONFSIM_TREE_H
#define CONFSIM_TREE_H

#include "model/schema.h"
#include "tree/path.h"
#include "tree/siblings.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace confsim {

// A version of a tree. A copy costs nothing, and a change to one leaves the others as they are.
struct node {
    std::string module;
    std::string name;
    std::string text; // of a leaf
    siblings children;
    const schema_node *place = nullptr; // in the model, if there is one

    [[nodiscard]] bool is_leaf() const { return children.empty(); }
};

// The key that a node has when it is a list entry. The name is "." for its own text, and empty when
// only its position tells it. Several keys are joined by zero bytes, names and values alike.
struct entry_key {
    std::string_view name;
    std::string value;

    bool operator==(const entry_key &) const = default;
};
[[nodiscard]] entry_key key_of(const node &entry);

// The value of one key; "" for an entry that lacks it.
[[nodiscard]] std::string value_of_key(const node &entry, const std::string &name);

// Whether only its position tells a node from others of its name.
[[nodiscard]] bool is_told_by_position(const node &one);

// All nodes of a path below `top`, whose own name does not matter; they live as long as any version
// that holds them.
[[nodiscard]] std::vector<const node *> find(const node &top, const path &where);

// The functions that change a tree leave it as it was when they throw failure. They do so for data
// that would not be read again once they are stored: of two list entries with one key, of a node
// with both a text and children, or nested too deep.

// Makes the nodes of a path as far as they are missing, and gives the last the text, if there is
// one. Throws failure when the path is ambiguous or leads through a leaf, for a text that XML
// cannot hold, and when a list entry would have another key afterwards.
void set(node &top, const path &where, const std::optional<std::string> &text);

// Removes all nodes of a path, and the nodes above that hold nothing any more. Returns how many the
// path led to. Throws failure when the key of a list entry would go and the entry would not.
std::size_t remove(node &top, const path &where);

// Replaces the instances that a path leads to by others of it, and makes the nodes above as far as
// they are missing. Throws failure as set() does, and when the path does not name one of the
// instances.
void put(node &top, const path &where, std::vector<node> instances);

// Adds what is missing in one tree from another.
void add_missing(node &to, const node &from);

// Moves a list entry to another place in its list; `other` counts for the last two. Throws failure
// unless each path leads to one entry, and both are of the same list.
enum class destination { first, last, before, after };
void move(node &top, const path &where, destination to, const path &other);

// The list entries before and after the one that a path leads to; null where there is none. Throws
// failure unless the path leads to exactly one node.
struct neighbours {
    std::optional<path> previous;
    std::optional<path> next;
};
[[nodiscard]] neighbours find_neighbours(const node &top, const path &where);

// Roughly the bytes that a tree takes; the nodes on its longest way down, its top included.
[[nodiscard]] std::size_t size_of(const node &tree);
[[nodiscard]] std::size_t depth_of(const node &tree);

// Throws failure for a tree that would not be read again once it is stored. It stands at `where`.
void refuse_unreadable(const node &tree, const path &where);

} // namespace confsim

#endif
