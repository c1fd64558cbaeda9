// One thing that goes wrong on order, with a frame that confsim sends or a request that it answers.
#ifndef CONFSIM_FAULT_H
#define CONFSIM_FAULT_H

#include <span>
#include <string>
#include <vector>

namespace confsim {

struct fault {
    enum class kind {
        drop,
        delay,
        duplicate,
        truncate,
        corrupt,
        split,
        disconnect_at,
        refuse,
        silence,
        late
    };

    kind what = kind::drop;
    std::string method{}; // whose answer it is; empty for a frame
    double seconds = 0;   // of delay and late
    std::size_t at = 0;   // the byte of the frame, its header included
    int code = 0;         // of refuse, like the text
    std::string text{};

    [[nodiscard]] bool is_of_answers() const { return what >= kind::refuse; }
};

// Reads a fault as it is ordered: its name and what belongs to it. Throws failure.
[[nodiscard]] fault read_fault(std::span<const std::string> words);

// The other way round.
[[nodiscard]] std::string in_words(const fault &given);

// All faults as they are ordered, each with its arguments.
[[nodiscard]] std::vector<std::string> known_faults();

} // namespace confsim

#endif
