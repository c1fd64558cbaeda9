// Variables of scripts: NAME=VALUE on the command line, $NAME in a command.
#ifndef CONFSIM_VARIABLES_H
#define CONFSIM_VARIABLES_H

#include <map>
#include <string>
#include <vector>

namespace confsim {

using variables = std::map<std::string, std::string>;

// Takes in a text NAME=VALUE. Throws failure unless it is one, with the name of a variable.
void define(variables &all, const std::string &definition);

// Replaces each $NAME in the words, and $$ by a dollar sign; any other $ stays. Throws failure for
// a name without a value. Without any variable, dollar signs have no meaning, so that scripts which
// know nothing of variables can hold hashes of passwords.
void expand(std::vector<std::string> &words, const variables &all);

} // namespace confsim

#endif
