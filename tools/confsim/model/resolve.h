// Paths as a model has them.
#ifndef CONFSIM_RESOLVE_H
#define CONFSIM_RESOLVE_H

#include "model/schema.h"
#include "tree/path.h"

#include <string>

namespace confsim {

// Fills in the modules that a path leaves out, and brings keys into their order and values into
// their usual form. Throws failure, which names the nearest, for a path that the model does not
// have. Without a model (`top` null) the path is as before.
[[nodiscard]] path resolved(const schema_node *top, const path &where);

// Where a resolved path leads; null without a model.
[[nodiscard]] const schema_node *place_of(const schema_node *top, const path &where);

// The usual form of a value. Throws failure for one that is not allowed.
[[nodiscard]] std::string canonical_value(const schema_node &leaf, const std::string &value,
                                          const path &where);

} // namespace confsim

#endif
