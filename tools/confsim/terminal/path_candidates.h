// Paths that go on from what is typed of one: by nodes that are there, and by those of the model.
#ifndef CONFSIM_PATH_CANDIDATES_H
#define CONFSIM_PATH_CANDIDATES_H

#include "model/schema.h"
#include "terminal/candidates.h"
#include "tree/tree.h"

namespace confsim {

struct path_sources {
    const node *tree = nullptr;         // null: nodes that are there do not matter
    const schema_node *model = nullptr; // null: there is none
    bool has_new_nodes = false;         // paths may lead to what only the model has
    bool has_state = false;             // also where that is no configuration
};

// The path that is typed leads on from node to node: behind a list stands [, and its entries come
// next.
void add_paths(candidates &to, const path_sources &from);

} // namespace confsim

#endif
