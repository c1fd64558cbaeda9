// See colour.h.
#include "terminal/colour.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <unistd.h>

namespace confsim {

bool has_colours(int descriptor)
{
    const char *refused = std::getenv("NO_COLOR");
    const char *kind = std::getenv("TERM");
    return isatty(descriptor) == 1 && (refused == nullptr || *refused == '\0') && kind != nullptr &&
           *kind != '\0' && std::string_view(kind) != "dumb";
}

std::string coloured(const std::string &text, tone meant)
{
    constexpr const char *bold_red = "\033[1;31m";
    constexpr const char *yellow = "\033[33m";
    return meant == tone::plain ? text
                                : (meant == tone::error ? bold_red : yellow) + text + "\033[0m";
}

void print_error(const std::string &text)
{
    const std::string line = coloured(text, has_colours(STDERR_FILENO) ? tone::error : tone::plain);
    std::fwrite((line + '\n').data(), 1, line.size() + 1, stderr);
}

} // namespace confsim
