// The usual notation of a model as a tree of lines (+--rw), and parts of it.
#ifndef CONFSIM_OUTLINE_H
#define CONFSIM_OUTLINE_H

#include "tree/path.h"

#include <string>

namespace confsim {

// The lines of the nodes above a place, of its own, and of all below it.
[[nodiscard]] std::string part_of_outline(const std::string &text, const path &where);

} // namespace confsim

#endif
