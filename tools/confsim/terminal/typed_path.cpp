// See typed_path.h. It reads the forms that tree/path.cpp does, and takes the end of the text for
// the place where somebody types.
#include "terminal/typed_path.h"

#include <algorithm>

namespace confsim {

namespace {

constexpr std::size_t none = std::string::npos;

// Behind a value in quotes that begins at `at`, or the size of the text, where it has no end.
std::size_t behind_quoted(const std::string &text, std::size_t at)
{
    const char quote = text[at];
    for (++at; at < text.size() && text[at] != quote; ++at) {
        at += quote == '"' && text[at] == '\\' ? 1 : 0;
    }
    return std::min(at + 1, text.size());
}

bool is_quote_of_value(const std::string &text, std::size_t at)
{
    return (text[at] == '"' || text[at] == '\'') && at > 0 && text[at - 1] == '=';
}

// Where the last step begins.
std::size_t last_slash(const std::string &text)
{
    std::size_t found = 0;
    bool is_in_keys = false;
    for (std::size_t at = 0; at < text.size();) {
        if (is_in_keys && is_quote_of_value(text, at)) {
            at = behind_quoted(text, at);
            continue;
        }
        is_in_keys = text[at] == '[' || (is_in_keys && text[at] != ']');
        found = text[at] == '/' && !is_in_keys ? at : found;
        ++at;
    }
    return found;
}

// The value in quotes; half of an escape is none yet.
std::string unquoted(const std::string &text, std::size_t begin, std::size_t end)
{
    const char quote = text[begin];
    std::string value;
    for (std::size_t at = begin + 1; at < end && text[at] != quote; ++at) {
        at += quote == '"' && text[at] == '\\' ? 1 : 0;
        value += at < end ? text.substr(at, 1) : "";
    }
    return value;
}

// Reads the keys from the first [ on. Returns whether they are of a form that can go on.
bool read_keys(const std::string &text, std::size_t at, typed_path &to)
{
    while (at < text.size()) {
        if (text[at] != '[' && text[at] != ',') {
            return false;
        }
        const std::size_t name_end = std::min(text.find_first_of("=],", ++at), text.size());
        std::string name = text.substr(at, name_end - at);
        if (name_end == text.size() || text[name_end] != '=') {
            at = name_end;
            if (at == text.size()) {
                to.open = {name.substr(name.find(':') + 1), std::nullopt};
                return true;
            }
            to.keys.push_back({"", name});
        } else {
            name.erase(0, name.find(':') + 1); // npos + 1 is 0
            at = name_end + 1;
            const bool is_quoted = at < text.size() && is_quote_of_value(text, at);
            const std::size_t end = is_quoted ? behind_quoted(text, at)
                                              : std::min(text.find_first_of(",]", at), text.size());
            std::string value = is_quoted ? unquoted(text, at, end) : text.substr(at, end - at);
            at = end;
            if (at == text.size()) {
                to.open = {name, value};
                return true;
            }
            to.keys.push_back({name, value});
        }
        at += text[at] == ']' ? 1 : 0;
    }
    return true;
}

} // namespace

std::optional<typed_path> read_typed_path(const std::string &text)
{
    if (!text.empty() && text.front() != '/') {
        return std::nullopt;
    }
    const std::size_t slash = last_slash(text);
    const std::string last = text.substr(std::min(slash + 1, text.size()));
    const std::size_t keys = last.find('[');
    typed_path found{text.substr(0, slash), last.substr(0, keys), keys != none, {}, {}};
    if (found.has_keys && !read_keys(last, keys, found)) {
        return std::nullopt;
    }
    return found;
}

} // namespace confsim
