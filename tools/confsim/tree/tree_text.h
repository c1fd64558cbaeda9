// Trees of values written as XML.
#ifndef CONFSIM_TREE_TEXT_H
#define CONFSIM_TREE_TEXT_H

#include "tree/tree_xml.h"

#include <string>

namespace confsim {

// The indented text that to_xml() of a tree prints as. Written straight from the tree, it takes a
// fraction of the time, and of the memory, which for XML nodes is many times that of the text.
[[nodiscard]] std::string to_xml_text(const node &tree, module_table &modules);

} // namespace confsim

#endif
