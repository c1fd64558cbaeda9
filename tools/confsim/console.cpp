// See console.h.
#include "console.h"

#include <cstdio>

namespace confsim {

void console::print(const std::string &text) const
{
    if (before) {
        before();
    }
    std::fputs((text + "\n").c_str(), stdout);
    std::fflush(stdout);
    if (after) {
        after();
    }
}

} // namespace confsim
