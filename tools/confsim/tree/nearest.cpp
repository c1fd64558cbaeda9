// See nearest.h.
#include "tree/nearest.h"

#include <algorithm>
#include <numeric>
#include <string_view>

namespace confsim {

namespace {

// The distance takes quadratic time, and names come from plugins.
constexpr std::size_t longest_compared = 200;

// How many characters are to be inserted, removed or replaced.
std::size_t distance(std::string_view from, std::string_view to)
{
    std::vector<std::size_t> row(to.size() + 1); // to each beginning of `to`
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < to.size(); ++j) {
            const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

} // namespace

std::string hint_of_nearest(const std::string &wanted, const std::vector<std::string> &names)
{
    const std::string_view compared = std::string_view(wanted).substr(0, longest_compared);
    const std::string *nearest = nullptr;
    std::size_t least = 0;
    for (const std::string &each : names) {
        const std::size_t found =
            distance(std::string_view(each).substr(0, longest_compared), compared);
        if (nearest == nullptr || found < least) {
            nearest = &each;
            least = found;
        }
    }
    return nearest == nullptr ? "" : "; the nearest is " + *nearest;
}

} // namespace confsim
