// A path that is still being typed.
#ifndef CONFSIM_TYPED_PATH_H
#define CONFSIM_TYPED_PATH_H

#include "tree/path.h"

#include <optional>
#include <string>
#include <vector>

namespace confsim {

struct typed_path {
    std::string above; // the steps that are complete, as typed
    std::string name;  // of the step where somebody types, with its prefix
    bool has_keys = false;
    std::vector<predicate> keys; // those that are complete

    // The key that is not; value none before the =.
    struct open_key {
        std::string name;
        std::optional<std::string> value;
    };
    std::optional<open_key> open;
};

// None when a path cannot go on from there.
[[nodiscard]] std::optional<typed_path> read_typed_path(const std::string &text);

} // namespace confsim

#endif
