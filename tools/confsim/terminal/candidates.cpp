// See candidates.h.
#include "terminal/candidates.h"

#include <algorithm>
#include <iterator>

namespace confsim {

namespace {

// Cuts a text where it differs from another one, and not inside of a character of UTF-8, nor
// between a backslash and what that stands in front of.
void cut(std::string &text, const std::string &other)
{
    const auto end = std::mismatch(text.begin(), text.end(), other.begin(), other.end()).first;
    if (end == text.end()) {
        return;
    }
    const auto is_inside = [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U; };
    auto size = static_cast<std::size_t>(std::distance(text.begin(), end));
    while (size > 0 && (is_inside(text[size]) || text[size - 1] == '\\')) {
        --size;
    }
    text.resize(size);
}

} // namespace

void candidates::add(const std::string &word, bool is_whole, std::size_t hidden)
{
    if (word.find('\n') != std::string::npos) {
        return; // cannot be typed
    }
    if (!common_) {
        common_ = word;
        is_whole_ = is_whole;
    } else if (word != *common_ || are_several_) {
        are_several_ = true;
        cut(*common_, word);
    }
    std::string text = word.substr(std::min(hidden, word.size()));
    if (shown_.size() == most_shown && text > *shown_.rbegin()) {
        has_more_ = true;
        return;
    }
    shown_.insert(std::move(text));
    if (shown_.size() > most_shown) {
        shown_.erase(std::prev(shown_.end()));
        has_more_ = true;
    }
}

const std::string &candidates::common() const
{
    return common_ && (common_->size() > typed_.size() || !are_several_) ? *common_ : typed_;
}

} // namespace confsim
