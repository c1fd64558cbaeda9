// Where commands come from: a terminal, see terminal/edited_input.h, or a file or pipe read line by
// line.
#ifndef CONFSIM_INPUT_H
#define CONFSIM_INPUT_H

#include "commands/console.h"
#include "service/loop.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace confsim {

struct completion;
using completer = std::function<completion(const std::string &line)>; // of what is typed

class input {
public:
    virtual ~input() = default;
    input(const input &) = delete;
    input &operator=(const input &) = delete;

    // Serves the loop until there is a line. None at the end of the input, and when the loop was
    // interrupted.
    [[nodiscard]] virtual std::optional<std::string> next_line() = 0;

    // Whether a failed command ends the input.
    [[nodiscard]] virtual bool is_script() const = 0;

    // FILE:LINE of the last line.
    [[nodiscard]] virtual std::string position() const = 0;

protected:
    input() = default;
};

// Commands from standard input: edited, and completed, when it is a terminal.
[[nodiscard]] std::unique_ptr<input> standard_input(event_loop &loop, console &out,
                                                    const completer &complete);

// Throws failure when the file cannot be opened.
[[nodiscard]] std::unique_ptr<input> script_input(event_loop &loop, const std::string &file);

} // namespace confsim

#endif
