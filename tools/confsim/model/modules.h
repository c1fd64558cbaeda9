// Which YANG modules are read, and from where.
#ifndef CONFSIM_MODULES_H
#define CONFSIM_MODULES_H

#include "model/model.h"
#include "model/yang.h"

#include <set>
#include <string>

namespace confsim::yang {

struct loaded_modules {
    context_ptr context;
    std::set<std::string> named; // those that were asked for
};

// Throws failure, which names the file.
[[nodiscard]] loaded_modules load_modules(const model_sources &from);

} // namespace confsim::yang

#endif
