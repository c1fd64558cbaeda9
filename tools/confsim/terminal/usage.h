// What can stand next behind the words of a command, found out from the texts that tell users how
// commands are written, such as PATH before|after|first|last [PATH].
#ifndef CONFSIM_USAGE_H
#define CONFSIM_USAGE_H

#include <span>
#include <string>
#include <vector>

namespace confsim {

// A command, or what is written like one. Words in capitals stand for something; COMMAND... for
// another command, unless behind --, and FAULT... for a fault.
struct usage {
    std::string name;
    std::string arguments;
};

struct vocabulary {
    std::vector<usage> commands;
    std::vector<usage> faults;
};

// What the next word can be: words in capitals, and others that stand for themselves.
struct expected_words {
    std::vector<std::string> choices;
    std::span<const std::string> command; // the innermost, as far as it is there
};
// Whether a word stands for something else.
[[nodiscard]] bool is_placeholder(const std::string &choice);

[[nodiscard]] expected_words expected_behind(std::span<const std::string> words,
                                             const vocabulary &known);

} // namespace confsim

#endif
