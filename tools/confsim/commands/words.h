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

[[nodiscard]] std::string join_words(const std::vector<std::string> &words, std::size_t first);

} // namespace confsim

#endif
