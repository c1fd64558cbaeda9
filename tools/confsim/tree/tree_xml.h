// Trees of values read from XML and written as XML, and the modules that namespaces stand for.
#ifndef CONFSIM_TREE_XML_H
#define CONFSIM_TREE_XML_H

#include "tree/tree.h"
#include "tree/xml.h"

#include <map>
#include <set>
#include <string>

namespace confsim {

// The names under which modules appear in paths, and their namespaces.
class module_table {
public:
    // The module of a namespace seen in a file: the name it is known by, else its prefix, else the
    // last part of its URI. Throws failure when the name already stands for another namespace.
    const std::string &name_of(const xmlNs *space);

    // The namespace of a module, urn:MODULE if no file named one; empty for a module without.
    const std::string &uri_of(const std::string &module);

    // Takes over what a model says of a module.
    void know(const std::string &module, const std::string &uri);

    // Whether a reader of XML can only know the module by the prefix of its namespace.
    [[nodiscard]] bool needs_prefix(const std::string &module);

    // A top node without a namespace belongs to a module of its own name.
    void add_without_namespace(const std::string &module) { uris_.try_emplace(module, ""); }

private:
    std::map<std::string, std::string> names_; // by URI
    std::map<std::string, std::string> uris_;  // by module
    std::set<std::string> modelled_;
};

[[nodiscard]] node from_xml(const xmlNode *element, const std::string &outer_module,
                            module_table &modules);
// Frees the element piece by piece, which has room for half as much again.
[[nodiscard]] node from_xml(xml::node_ptr element, const std::string &outer_module,
                            module_table &modules);
[[nodiscard]] xml::node_ptr to_xml(const node &tree, module_table &modules);

} // namespace confsim

#endif
