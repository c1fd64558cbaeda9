// See files.h.
#include "files.h"

#include "failure.h"

#include <fstream>
#include <sstream>

namespace confsim {

std::string read_file(const std::string &name)
{
    std::ifstream file(name);
    std::ostringstream text;
    if (file.peek() != std::ifstream::traits_type::eof()) {
        text << file.rdbuf();
    }
    if (!file.is_open() || file.bad() || !text) {
        throw failure("cannot read " + name);
    }
    return text.str();
}

} // namespace confsim
