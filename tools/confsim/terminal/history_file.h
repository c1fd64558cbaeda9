// The commands of former sessions, a line each, in a file that is only for its owner.
//
// Sessions that run at a time share it. That it cannot be read or written is no error: then there
// is no history.
#ifndef CONFSIM_HISTORY_FILE_H
#define CONFSIM_HISTORY_FILE_H

#include <filesystem>
#include <string>
#include <vector>

namespace confsim {

class history_file {
public:
    static constexpr std::size_t most_lines = 1000;

    // With an empty path, there is none.
    explicit history_file(std::filesystem::path file) : file_(std::move(file)) {}

    // The last ones, in the order in which they were given.
    [[nodiscard]] std::vector<std::string> lines() const;

    // Adds a command at the end, unless it may carry a secret, and drops the first of too many.
    void add(const std::string &line);

private:
    std::filesystem::path file_;
    std::string last_;
};

// $XDG_STATE_HOME/confsim/history, by default that below ~/.local/state; empty where there is no
// such place.
[[nodiscard]] std::filesystem::path usual_history();

} // namespace confsim

#endif
