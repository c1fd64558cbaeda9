// The name that somebody may have meant.
#ifndef CONFSIM_NEAREST_H
#define CONFSIM_NEAREST_H

#include <string>
#include <vector>

namespace confsim {

// "; the nearest is NAME", with the one of the names that takes the fewest changes of a character
// to become the wanted one, the first of several; empty without names.
[[nodiscard]] std::string hint_of_nearest(const std::string &wanted,
                                          const std::vector<std::string> &names);

} // namespace confsim

#endif
