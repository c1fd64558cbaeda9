// Files that are taken as a whole.
#ifndef CONFSIM_FILES_H
#define CONFSIM_FILES_H

#include <string>

namespace confsim {

// Throws failure for one that cannot be read.
[[nodiscard]] std::string read_file(const std::string &name);

} // namespace confsim

#endif
