// See variables.h.
#include "commands/variables.h"

#include "failure.h"

#include <cctype>

namespace confsim {

namespace {

bool begins_name(char c)
{
    return std::isalpha(static_cast<unsigned char>(c)) != 0 || c == '_';
}

std::size_t name_end(const std::string &text, std::size_t at)
{
    while (at < text.size() &&
           (begins_name(text[at]) || std::isdigit(static_cast<unsigned char>(text[at])) != 0)) {
        ++at;
    }
    return at;
}

std::string expanded(const std::string &word, const variables &all)
{
    std::string result;
    for (std::size_t at = 0; at < word.size();) {
        const char next = at + 1 < word.size() ? word[at + 1] : '\0';
        if (word[at] != '$' || (next != '$' && !begins_name(next))) {
            result += word[at++];
            continue;
        }
        const std::size_t end = next == '$' ? at + 2 : name_end(word, at + 1);
        const std::string name = word.substr(at + 1, end - at - 1);
        const auto found = all.find(name);
        if (next != '$' && found == all.end()) {
            throw failure("$" + name + " has no value; see the option -D, or write $$ for a $");
        }
        result += next == '$' ? "$" : found->second;
        at = end;
    }
    return result;
}

} // namespace

void define(variables &all, const std::string &definition)
{
    const std::size_t end = definition.find('=');
    if (end == std::string::npos || !begins_name(definition[0]) || name_end(definition, 0) != end) {
        throw failure("not NAME=VALUE: " + definition);
    }
    all[definition.substr(0, end)] = definition.substr(end + 1);
}

void expand(std::vector<std::string> &words, const variables &all)
{
    if (all.empty()) {
        return;
    }
    for (std::string &word : words) {
        word = expanded(word, all);
    }
}

} // namespace confsim
