// See chaos.h. Only the engine and the seeding of the standard library are used: what they yield is
// the same everywhere, which is not so for its distributions.
#include "faults/chaos.h"

#include "faults/numbers.h"

#include <iterator>

namespace confsim {

namespace {

constexpr std::uint32_t parts_of_percent = 1000;

// Long enough to overtake what comes next, and short enough for a test.
constexpr std::uint32_t least_pause = 10; // ms
constexpr std::uint32_t most_pause = 50;

// A byte of a frame that is likely to be one, be it of the header or of the body.
constexpr std::uint32_t last_byte = 200;

std::uint32_t below(std::mt19937 &luck, std::uint32_t limit)
{
    return static_cast<std::uint32_t>(luck()) % limit;
}

double draw_pause(std::mt19937 &luck)
{
    return (least_pause + below(luck, most_pause - least_pause)) / 1000.0;
}

} // namespace

chaos::source &chaos::draws_of(const std::string &what)
{
    const auto found = sources_.find(what);
    if (found != sources_.end()) {
        return found->second;
    }
    const std::string text = std::to_string(seed_) + ' ' + what;
    std::seed_seq seeds(text.begin(), text.end());
    return sources_.emplace(what, source(seeds)).first->second;
}

bool chaos::strikes(source &luck)
{
    const bool does = below(luck, 100 * parts_of_percent) < rate_ * parts_of_percent;
    times_ += does ? 1 : 0;
    return does;
}

std::optional<fault> chaos::for_frame(const std::string &plugin)
{
    static constexpr fault::kind kinds[] = {
        fault::kind::drop,    fault::kind::delay, fault::kind::duplicate,    fault::kind::truncate,
        fault::kind::corrupt, fault::kind::split, fault::kind::disconnect_at};
    source &luck = draws_of("frame " + plugin);
    if (!strikes(luck)) {
        return std::nullopt;
    }
    fault drawn{.what = kinds[below(luck, std::size(kinds))]};
    drawn.seconds = draw_pause(luck);
    drawn.at = below(luck, last_byte);
    return drawn;
}

std::optional<fault> chaos::for_request(const std::string &plugin, const std::string &method)
{
    static constexpr fault::kind kinds[] = {fault::kind::refuse, fault::kind::silence,
                                            fault::kind::late};
    source &luck = draws_of("request " + plugin);
    if (!strikes(luck)) {
        return std::nullopt;
    }
    fault drawn{.what = kinds[below(luck, std::size(kinds))]};
    drawn.method = method;
    drawn.seconds = draw_pause(luck);
    drawn.code = -1;
    drawn.text = "chaos";
    return drawn;
}

std::optional<chaos::trouble> chaos::for_command()
{
    using kind = trouble::kind;
    static constexpr kind kinds[] = {kind::stop, kind::restart, kind::kill, kind::full,
                                     kind::unreadable_profile};
    source &luck = draws_of("command");
    if (!strikes(luck)) {
        return std::nullopt;
    }
    const kind what = kinds[below(luck, std::size(kinds))];
    const double pause = draw_pause(luck);
    return trouble{what, pause, static_cast<std::uint32_t>(luck())};
}

std::string chaos::trouble::in_words() const
{
    switch (what) {
    case kind::stop:
        return "stop " + number_text(seconds);
    case kind::restart:
        return "restart " + number_text(seconds);
    case kind::kill:
        return "kill";
    case kind::full:
        return "full";
    default:
        return "unreadable-profile";
    }
}

std::string chaos::in_words() const
{
    return "chaos " + std::to_string(seed_) + ' ' + number_text(rate_);
}

chaos read_chaos(std::span<const std::string> words)
{
    const auto seed = read_number<std::uint64_t>(words[0], 0, UINT64_MAX);
    return {seed, read_number<double>(words[1], 0, 100)};
}

} // namespace confsim
