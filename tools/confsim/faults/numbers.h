// Numbers as they stand in the order of a fault.
#ifndef CONFSIM_NUMBERS_H
#define CONFSIM_NUMBERS_H

#include "failure.h"

#include <charconv>
#include <string>

namespace confsim {

template <typename number>
number read_number(const std::string &word, number least, number most)
{
    number value{};
    const char *end = word.data() + word.size();
    const auto [stopped, error] = std::from_chars(word.data(), end, value);
    if (error != std::errc() || stopped != end || !(value >= least && value <= most)) {
        throw failure("not a number that is possible here: " + word);
    }
    return value;
}

// Without the zeros that std::to_string() would give it.
inline std::string number_text(double number)
{
    std::string text(32, '\0');
    text.resize(static_cast<std::size_t>(
        std::to_chars(text.data(), text.data() + text.size(), number).ptr - text.data()));
    return text;
}

} // namespace confsim

#endif
