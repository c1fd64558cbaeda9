// Colours, where a person reads: what was refused or went wrong stands out.
#ifndef CONFSIM_COLOUR_H
#define CONFSIM_COLOUR_H

#include <string>

namespace confsim {

// What a text that is printed is about.
enum class tone { plain, finding, error };

// Whether what is written to a descriptor is coloured: it is a terminal that knows colours, and
// NO_COLOR is not set to anything.
[[nodiscard]] bool has_colours(int descriptor);

[[nodiscard]] std::string coloured(const std::string &text, tone meant);

// Prints a line on standard error that says why something failed.
void print_error(const std::string &text);

} // namespace confsim

#endif
