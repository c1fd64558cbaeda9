// What a model has to look at again after a change.
#ifndef CONFSIM_UNCHECKED_H
#define CONFSIM_UNCHECKED_H

#include "tree/tree.h"

namespace confsim {

// All of a configuration but the entries of independent lists that are the same in a valid one. It
// is as valid as the whole. Both have a model.
[[nodiscard]] node unchecked_part(const node &valid, const node &changed);

} // namespace confsim

#endif
