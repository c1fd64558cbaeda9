// Datastore paths: /module:node/node[key="value"]/other:node.
//
// Every form that the library knows is read (a prefix on each node, a prefix where the module
// changes, the module as first segment); the standard form, with quoted keys, is written.
#ifndef CONFSIM_PATH_H
#define CONFSIM_PATH_H

#include <string>
#include <vector>

namespace confsim {

// [name="value"]. The name "." stands for the node's own text; an empty name makes the value a
// position among the siblings of the same name, counted from 1.
struct predicate {
    std::string name;
    std::string value;
};

struct step {
    std::string module; // always given, also where the text leaves it out
    std::string name;
    std::vector<predicate> keys;
};

using path = std::vector<step>;

// Throws failure for a text that is no path of at least one node.
[[nodiscard]] path parse_path(const std::string &text);
[[nodiscard]] std::string to_text(const path &where);

// Whether two steps name the same node of the schema: keys do not matter.
[[nodiscard]] bool same_schema(const step &left, const step &right);

// Whether `prefix` leads to `where` or to a node above it; keys do not matter.
[[nodiscard]] bool leads_to(const path &prefix, const path &where);

} // namespace confsim

#endif
