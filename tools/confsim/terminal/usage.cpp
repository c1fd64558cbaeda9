// See usage.h. A text is a row of items, of which some may be left out. The words lead from each
// place in the row that can be reached to the next ones.
#include "terminal/usage.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <sstream>

namespace confsim {

namespace {

struct item {
    std::vector<std::string> choices;
    bool is_optional = false;
};
using row = std::vector<item>;

std::vector<std::string> split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream rest(text);
    for (std::string part; std::getline(rest, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

// The rows that a text separates by a bar with blanks around it.
std::vector<row> read_usage(const std::string &text)
{
    std::vector<row> rows(1);
    int depth = 0; // of brackets
    for (std::string word : split(text, ' ')) {
        if (word == "|") {
            rows.emplace_back();
            continue;
        }
        depth += static_cast<int>(std::count(word.begin(), word.end(), '['));
        const bool is_optional = depth > 0;
        depth -= static_cast<int>(std::count(word.begin(), word.end(), ']'));
        std::erase_if(word, [](char c) { return c == '[' || c == ']'; });
        rows.back().push_back({split(word, '|'), is_optional});
    }
    return rows;
}

// Where a name may be left out, a path behind it is told by how it begins.
bool can_be(const std::string &choice, const std::string &word)
{
    return choice == "PATH" ? word.starts_with('/') : is_placeholder(choice) || choice == word;
}

// One row of one command, with the places in it that the words lead to.
class walk {
public:
    explicit walk(const row &items) : items_(items) { reach(0); }

    void take(const std::string &word)
    {
        const std::set<std::size_t> before = std::move(places_);
        places_.clear();
        for (const std::size_t place : before) {
            const std::vector<std::string> &choices = choices_at(place);
            if (std::any_of(choices.begin(), choices.end(),
                            [&word](const auto &each) { return can_be(each, word); })) {
                reach(place + 1);
            }
        }
    }

    // What begins at one of the places and goes to the end.
    [[nodiscard]] bool begins(const char *part) const
    {
        return std::any_of(places_.begin(), places_.end(), [&](std::size_t place) {
            return choices_at(place) == std::vector<std::string>{part} &&
                   (place == 0 || choices_at(place - 1) != std::vector<std::string>{"--"});
        });
    }

    [[nodiscard]] std::vector<std::string> choices() const
    {
        std::vector<std::string> all;
        for (const std::size_t place : places_) {
            all.insert(all.end(), choices_at(place).begin(), choices_at(place).end());
        }
        return all;
    }

private:
    // Also the places behind it, as far as what is between may be left out.
    void reach(std::size_t place)
    {
        places_.insert(place);
        while (place < items_.size() && items_[place].is_optional) {
            places_.insert(++place);
        }
    }

    [[nodiscard]] const std::vector<std::string> &choices_at(std::size_t place) const
    {
        static const std::vector<std::string> none;
        return place < items_.size() ? items_[place].choices : none;
    }

    const row &items_;
    std::set<std::size_t> places_;
};

expected_words expected(std::span<const std::string> words, const std::vector<usage> &all,
                        const vocabulary &known)
{
    expected_words found{{}, words};
    if (words.empty()) {
        std::transform(all.begin(), all.end(), std::back_inserter(found.choices),
                       [](const usage &each) { return each.name; });
        return found;
    }
    for (const usage &each : all) {
        if (each.name != words.front()) {
            continue;
        }
        for (const row &items : read_usage(each.arguments)) {
            walk here(items);
            for (std::size_t i = 1; i <= words.size(); ++i) {
                if (here.begins("COMMAND...")) {
                    return expected(words.subspan(i), known.commands, known);
                }
                if (here.begins("FAULT...")) {
                    const expected_words inner = expected(words.subspan(i), known.faults, known);
                    found.choices.insert(found.choices.end(), inner.choices.begin(),
                                         inner.choices.end());
                }
                if (i < words.size()) {
                    here.take(words[i]);
                }
            }
            const std::vector<std::string> choices = here.choices();
            found.choices.insert(found.choices.end(), choices.begin(), choices.end());
        }
    }
    return found;
}

} // namespace

bool is_placeholder(const std::string &choice)
{
    return choice.find_first_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ") != std::string::npos;
}

expected_words expected_behind(std::span<const std::string> words, const vocabulary &known)
{
    return expected(words, known.commands, known);
}

} // namespace confsim
