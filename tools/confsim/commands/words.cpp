// See words.h.
#include "commands/words.h"

#include "failure.h"

namespace confsim {

namespace {

constexpr const char *blanks = " \t\r";

bool is_quote(char c)
{
    return c == '"' || c == '\'';
}

// Both begin at an opening quote and return the index behind the closing one.
std::size_t quote_end(const std::string &line, std::size_t at)
{
    const std::size_t end = line.find(line[at], at + 1);
    if (end == std::string::npos) {
        throw failure("a quote has no end");
    }
    return end + 1;
}

std::size_t take_quoted(const std::string &line, std::size_t at, std::string &word)
{
    const char quote = line[at];
    for (++at; at < line.size() && line[at] != quote; ++at) {
        if (quote == '"' && line[at] == '\\' && at + 1 < line.size()) {
            ++at;
        }
        word += line[at];
    }
    if (at == line.size()) {
        throw failure("a quote has no end");
    }
    return at + 1;
}

// XML is the rest of the line as it stands, without the blanks at the end.
std::size_t take_xml(const std::string &line, std::size_t at, std::string &word)
{
    word = line.substr(at, line.find_last_not_of(blanks) + 1 - at);
    return line.size();
}

std::size_t take_plain(const std::string &line, std::size_t at, std::string &word)
{
    const std::size_t begin = at;
    while (at < line.size() && std::string(blanks).find(line[at]) == std::string::npos) {
        at = is_quote(line[at]) && line[at - 1] == '=' ? quote_end(line, at) : at + 1;
    }
    word = line.substr(begin, at - begin);
    return at;
}

} // namespace

std::vector<std::string> split_words(const std::string &line)
{
    std::vector<std::string> words;
    std::size_t at = line.find_first_not_of(blanks);
    while (at != std::string::npos && line[at] != '#') {
        std::string word;
        at = is_quote(line[at]) ? take_quoted(line, at, word)
             : line[at] == '<'  ? take_xml(line, at, word)
                                : take_plain(line, at, word);
        words.push_back(word);
        at = line.find_first_not_of(blanks, at);
    }
    return words;
}

std::string join_words(const std::vector<std::string> &words, std::size_t first)
{
    std::string joined;
    for (std::size_t i = first; i < words.size(); ++i) {
        joined += (i > first ? " " : "") + words[i];
    }
    return joined;
}

} // namespace confsim
