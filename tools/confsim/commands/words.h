// Splits a command line into words.
#ifndef CONFSIM_WORDS_H
#define CONFSIM_WORDS_H

#include <string>
#include <vector>

namespace confsim {

// Words are separated by blanks. A word in '...' or "..." (where \ keeps the next character) may
// hold blanks; its quotes are removed. Inside of a word, as in /a:b[name="x y"], quotes stay. A
// word that begins with < goes to the end of the line, as it stands. One that begins with # begins
// a comment. Throws failure for a quote without end.
[[nodiscard]] std::vector<std::string> split_words(const std::string &line);

// The same for the beginning of a line, up to where somebody types: the words before that, and the
// one there, which may be empty or lack the end of a quote. Throws nothing.
struct typed_words {
    std::vector<std::string> before;
    std::string last;
    std::size_t begin = 0; // of the last in the line
    bool is_comment = false;
};
[[nodiscard]] typed_words split_typed(const std::string &line);

// The other way round: what is to be typed for a word, or for its beginning, to be read as that.
[[nodiscard]] std::string typed_as(const std::string &word, bool is_whole);

[[nodiscard]] std::string join_words(const std::vector<std::string> &words, std::size_t first);

} // namespace confsim

#endif
