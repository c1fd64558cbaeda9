// The words that can stand where somebody types. Of many, a few are kept to be shown, and what all
// of them begin with.
#ifndef CONFSIM_CANDIDATES_H
#define CONFSIM_CANDIDATES_H

#include <optional>
#include <set>
#include <string>

namespace confsim {

class candidates {
public:
    static constexpr std::size_t most_shown = 100;

    explicit candidates(std::string typed) : typed_(std::move(typed)) {}

    // What is typed of the word.
    [[nodiscard]] const std::string &typed() const { return typed_; }

    // A word, as far as it is certain, and whether it ends there. `shown` of its bytes at the
    // beginning are not worth showing.
    void add(const std::string &word, bool is_whole, std::size_t hidden = 0);

    // Adds a word if it begins with what is typed.
    void add_fitting(const std::string &word)
    {
        if (word.starts_with(typed_)) {
            add(word, true);
        }
    }

    // What all begin with; what is typed where there is nothing more.
    [[nodiscard]] const std::string &common() const;
    // Whether that is a word that ends there, and the only one.
    [[nodiscard]] bool is_whole() const { return !are_several_ && is_whole_; }

    [[nodiscard]] const std::set<std::string> &shown() const { return shown_; }
    [[nodiscard]] bool has_more() const { return has_more_; }

private:
    std::string typed_;
    std::optional<std::string> common_;
    std::set<std::string> shown_;
    bool are_several_ = false;
    bool is_whole_ = false;
    bool has_more_ = false;
};

} // namespace confsim

#endif
