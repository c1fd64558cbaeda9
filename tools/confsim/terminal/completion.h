// What can stand at the end of a line that is being typed. Nothing here knows of a terminal.
#ifndef CONFSIM_COMPLETION_H
#define CONFSIM_COMPLETION_H

#include "commands/variables.h"
#include "store/configuration.h"
#include "terminal/usage.h"

#include <string>
#include <vector>

namespace confsim {

// What there is at the moment.
struct surroundings {
    vocabulary words;
    const configuration &config;
    const variables &known;
    std::vector<std::string> plugins{};
    std::vector<std::string> operations{};
    std::vector<std::string> statuses{}; // paths of them
    std::vector<std::string> programs{};
};

struct completion {
    std::size_t begin = 0;                 // of the word that is being typed
    std::string replacement;               // that word, as far as it is certain how it goes on
    std::vector<std::string> candidates{}; // to be shown, in their order
    bool has_more = false;                 // than are shown
};

[[nodiscard]] completion complete(const std::string &line, const surroundings &here);

} // namespace confsim

#endif
