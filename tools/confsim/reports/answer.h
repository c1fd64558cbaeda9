// The answer to one command, with what a program wants to know about it in fields of its own.
#ifndef CONFSIM_ANSWER_H
#define CONFSIM_ANSWER_H

#include "service/loop.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace confsim {

using json_value = nlohmann::ordered_json;

struct command_answer {
    command_answer() noexcept(false) {} // as making even an empty JSON value may throw

    bool ok = true;
    std::string plugin;      // that was concerned; empty when none was
    std::string path;        // likewise
    std::optional<int> code; // of a plugin that refused
    std::string text; // as printed; of a failure the reason, in a plugin's own words if it has any
    json_value data;  // null when there is none
    seconds duration{};
};

// One line, without its end. What is not UTF-8 in it is replaced by U+FFFD.
[[nodiscard]] std::string to_json(const command_answer &given);

} // namespace confsim

#endif
