// A configuration as a tree of values, and where its nodes stand.
//
// A node is a list entry when its first child is a leaf called name, id, key or index, or when it
// stands, before or after a change, among several siblings of its name. The key is that first
// child; else the first child called so; else its first leaf; else, of a leaf, its own text; else
// its position.
#ifndef CONFSIM_TREE_H
#define CONFSIM_TREE_H

#include "path.h"

#include <optional>
#include <string>
#include <vector>

namespace confsim {

struct node {
    std::string module;
    std::string name;
    std::string text; // of a leaf
    std::vector<node> children;

    [[nodiscard]] bool is_leaf() const { return children.empty(); }
};

// The step to each of `siblings`, which stand, after or before a change, in place of `others`.
[[nodiscard]] std::vector<step> steps_of(const std::vector<node> &siblings,
                                         const std::vector<node> &others);

// All nodes of a path below `top`, whose own name does not matter.
[[nodiscard]] std::vector<const node *> find(const node &top, const path &where);

// Makes the nodes of a path as far as they are missing, and gives the last the text, if there is
// one. Throws failure, with `top` in some state, when the path is ambiguous or leads through a
// leaf, and for a text that XML cannot hold.
void set(node &top, const path &where, const std::optional<std::string> &text);

// Replaces the instances that a path leads to by others of it, and makes the nodes above as far as
// they are missing. Throws failure, with `top` in some state, also when the path does not name one
// of the instances.
void put(node &top, const path &where, std::vector<node> instances);

// Adds what is missing in one tree from another.
void add_missing(node &to, const node &from);

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

// Removes all nodes of a path, and the nodes above that hold nothing any more. Returns how many the
// path led to.
std::size_t remove(node &top, const path &where);

// Throws failure when two list entries have the same key.
void refuse_duplicates(const node &top, const path &where);

} // namespace confsim

#endif
