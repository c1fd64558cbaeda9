// See words.h.
#include "commands/words.h"

#include "failure.h"

#include <algorithm>
#include <string_view>

namespace confsim {

namespace {

constexpr const char *blanks = " \t\r";

bool is_quote(char c)
{
    return c == '"' || c == '\'';
}

// Takes words from left to right. Where the line is still being typed, its end ends quotes, too.
class splitter {
public:
    splitter(const std::string &line, bool is_typed) : line_(line), is_typed_(is_typed)
    {
        at_ = std::min(line_.find_first_not_of(blanks), line_.size());
    }

    [[nodiscard]] std::size_t position() const { return at_; }
    [[nodiscard]] bool is_at_end() const { return at_ == line_.size() || is_at_comment(); }
    [[nodiscard]] bool is_at_comment() const { return at_ < line_.size() && line_[at_] == '#'; }

    // Leaves the position behind the word.
    std::string take()
    {
        std::string word;
        if (is_quote(line_[at_])) {
            take_quoted(word);
        } else if (line_[at_] == '<') { // XML, without the blanks at the end
            word = line_.substr(at_, line_.find_last_not_of(blanks) + 1 - at_);
            at_ = line_.size();
        } else {
            take_plain(word);
        }
        return word;
    }
    void skip_blanks() { at_ = std::min(line_.find_first_not_of(blanks, at_), line_.size()); }

private:
    // Whether there is a closing quote at the position, which goes behind it.
    void close_quote()
    {
        if (at_ < line_.size()) {
            ++at_;
        } else if (!is_typed_) {
            throw failure("a quote has no end");
        }
    }

    void take_quoted(std::string &word)
    {
        const char quote = line_[at_];
        for (++at_; at_ < line_.size() && line_[at_] != quote; ++at_) {
            if (quote == '"' && line_[at_] == '\\' && at_ + 1 < line_.size()) {
                ++at_;
            }
            word += line_[at_];
        }
        close_quote();
    }

    void take_plain(std::string &word)
    {
        const std::size_t begin = at_;
        while (at_ < line_.size() && std::string_view(blanks).find(line_[at_]) == none) {
            if (is_quote(line_[at_]) && line_[at_ - 1] == '=') {
                at_ = std::min(line_.find(line_[at_], at_ + 1), line_.size());
                close_quote();
            } else {
                ++at_;
            }
        }
        word = line_.substr(begin, at_ - begin);
    }

    static constexpr std::size_t none = std::string_view::npos;

    const std::string &line_;
    bool is_typed_;
    std::size_t at_ = 0;
};

} // namespace

std::vector<std::string> split_words(const std::string &line)
{
    std::vector<std::string> words;
    for (splitter rest(line, false); !rest.is_at_end(); rest.skip_blanks()) {
        words.push_back(rest.take());
    }
    return words;
}

typed_words split_typed(const std::string &line)
{
    typed_words found;
    splitter rest(line, true);
    for (; !rest.is_at_end(); rest.skip_blanks()) {
        found.begin = rest.position();
        std::string word = rest.take();
        if (rest.position() == line.size()) {
            found.last = std::move(word);
            return found;
        }
        found.before.push_back(std::move(word));
    }
    found.begin = line.size();
    found.is_comment = rest.is_at_comment();
    return found;
}

std::string typed_as(const std::string &word, bool is_whole)
{
    const auto is_read_back = [&](const std::string &typed) {
        const typed_words read = split_typed(typed + (is_whole ? " " : ""));
        return is_whole ? read.before == std::vector{word} && read.last.empty() && !read.is_comment
                        : read.before.empty() && read.last == word && !read.is_comment;
    };
    const bool has_escaped_quote = word.find("\\\"") != std::string::npos; // ends it when plain
    if (!has_escaped_quote && is_read_back(word)) {
        return word;
    }
    if (word.find('\'') == std::string::npos) {
        return "'" + word + (is_whole ? "'" : "");
    }
    std::string typed = "\"";
    for (const char c : word) {
        typed += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
    }
    return typed + (is_whole ? "\"" : "");
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
