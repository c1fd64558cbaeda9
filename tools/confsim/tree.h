// A configuration as a tree of values, and where its nodes stand.
//
// A node is a list entry when its first child is a leaf called name, id, key or index, or when it
// stands, before or after a change, among several siblings of its name. The key is that first
// child; else the first child called so; else its first leaf; else, of a leaf, its own text; else
// its position.
#ifndef CONFSIM_TREE_H
#define CONFSIM_TREE_H

#include "path.h"
#include "xml.h"

#include <map>
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

// The names under which modules appear in paths, and their namespaces.
class module_table {
public:
    // The module of a namespace seen in a file: the name it is known by, else its prefix, else the
    // last part of its URI.
    const std::string &name_of(const xmlNs *space);

    // The namespace of a module, urn:MODULE if no file named one; empty for a module without.
    const std::string &uri_of(const std::string &module);

    // A top node without a namespace belongs to a module of its own name.
    void add_without_namespace(const std::string &module) { uris_.try_emplace(module, ""); }

private:
    std::map<std::string, std::string> names_; // by URI
    std::map<std::string, std::string> uris_;  // by module
};

[[nodiscard]] node from_xml(const xmlNode *element, const std::string &outer_module,
                            module_table &modules);
[[nodiscard]] xml::node_ptr to_xml(const node &tree, module_table &modules);

// The step to each of `siblings`, which stand, after or before a change, in place of `others`.
[[nodiscard]] std::vector<step> steps_of(const std::vector<node> &siblings,
                                         const std::vector<node> &others);

// All nodes of a path below `top`, whose own name does not matter.
[[nodiscard]] std::vector<const node *> find(const node &top, const path &where);

// Make the nodes of a path as far as they are missing, and give the last the text. Throws failure,
// with `top` as before, when the path is ambiguous or leads through a leaf.
void set(node &top, const path &where, const std::string &text);

// Removes all nodes of a path, and the nodes above that hold nothing any more. Returns how many the
// path led to.
std::size_t remove(node &top, const path &where);

// Throws failure when two list entries have the same key.
void refuse_duplicates(const node &top, const path &where);

} // namespace confsim

#endif
