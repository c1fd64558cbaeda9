// Masks the values of passwords, keys and secrets in what is printed.
#ifndef CONFSIM_MASK_H
#define CONFSIM_MASK_H

#include <libxml/tree.h>

#include <string>

namespace confsim {

// In any text, line by line.
[[nodiscard]] std::string masked(std::string text);

// The node as indented lines, masked wherever in it the values stand.
[[nodiscard]] std::string masked(const xmlNode *node);

// XML that is printed as it was given, a notification for instance. Values may hold line breaks, so
// these become spaces.
[[nodiscard]] std::string masked_as_given(std::string text);

// A command as it was given. What it sets is a value like any other.
[[nodiscard]] std::string masked_command(const std::string &line);

// Whether a command is not to be kept: it is masked, or names anything that may hold a secret.
[[nodiscard]] bool may_carry_secret(const std::string &line);

} // namespace confsim

#endif
