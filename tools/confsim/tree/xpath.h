// XPath on answers and messages.
//
// Prefixes stand where they stand in paths: on a node whose module is not that of the node around
// it. So /ietf-interfaces:interfaces/interface[name="eth0"]/mtu is the path and the XPath of a
// node.
#ifndef CONFSIM_XPATH_H
#define CONFSIM_XPATH_H

#include "tree/tree_xml.h"

#include <string>
#include <vector>

namespace confsim {

struct xpath_result {
    bool holds = false;              // as a condition: whether there are nodes, for instance
    std::vector<std::string> values; // the texts of the nodes, or the value of the expression
};

// Evaluates an expression on XML of any number of top nodes; those inside of a <config> are taken
// for it. Throws failure for text that is not XML and for what is no XPath expression.
[[nodiscard]] xpath_result evaluate_xpath(const std::string &text, const std::string &expression,
                                          module_table names);

} // namespace confsim

#endif
