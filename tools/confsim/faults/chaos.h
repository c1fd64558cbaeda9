// Draws, by luck that a seed decides, what goes wrong: of all faults that can be ordered.
//
// Each plugin has draws of its own for the frames that it is sent and for the requests that it
// makes, and commands have theirs, so no draw depends on who of them comes first.
#ifndef CONFSIM_CHAOS_H
#define CONFSIM_CHAOS_H

#include "faults/fault.h"

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <span>
#include <string>

namespace confsim {

class chaos {
public:
    // The rate is in percent of frames, requests and commands.
    chaos(std::uint64_t seed, double rate) : seed_(seed), rate_(rate) {}

    [[nodiscard]] std::optional<fault> for_frame(const std::string &plugin);
    [[nodiscard]] std::optional<fault> for_request(const std::string &plugin,
                                                   const std::string &method);

    // What meets the daemon as a whole, before a command.
    struct trouble {
        enum class kind { stop, restart, kill, full, unreadable_profile };
        kind what;
        double seconds;     // of stop and restart
        std::uint32_t whom; // of kill: any number

        [[nodiscard]] std::string in_words() const;
    };
    [[nodiscard]] std::optional<trouble> for_command();

    // How it is ordered.
    [[nodiscard]] std::string in_words() const;
    // How often something has gone wrong.
    [[nodiscard]] unsigned times() const { return times_; }

private:
    using source = std::mt19937;

    [[nodiscard]] source &draws_of(const std::string &what);
    [[nodiscard]] bool strikes(source &luck);

    std::uint64_t seed_;
    double rate_;
    std::map<std::string, source> sources_;
    unsigned times_ = 0;
};

// Reads a seed and a rate. Throws failure.
[[nodiscard]] chaos read_chaos(std::span<const std::string> words);

} // namespace confsim

#endif
